#pragma once

/// The numbers of the bounds: objects of the interpreter, with its own + - * / and comparisons.
///
/// The value of an exact float, and of an exact int that a double holds exactly, is kept beside the
/// object, and so are the results of two such: they become objects only where the interpreter looks
/// at them. That and nothing else is the short way: it saves nearly half of a reserve+charge
/// pair.

#include <cmath>
#include <functional>
#include <utility>

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// A number, or any object where one was handed in; or nothing, for a field that is not set.
class Number {
 public:
  Number() = default;
  Number(double value) : kind_(Kind::floating), floating_(value) {}
  Number(int value) : Number(static_cast<long>(value)) {}
  explicit Number(long value) : kind_(Kind::integer), integer_(value) {}
  Number(Ref object) : object_(std::move(object)) { read(); }

  /// The object that the number was read from, or a new one. Raises `AttributeError` where nothing
  /// is set.
  operator Ref() const;

  /// The same, borrowed: the number keeps the object.
  PyObject* kept_object();
  bool is_set() const { return kind_ != Kind::other || object_.get() != nullptr; }

  bool is_known() const { return kind_ != Kind::other; }
  bool is_integer() const { return kind_ == Kind::integer; }
  long integer() const { return integer_; }
  /// The value, of an int as well.
  double floating() const { return is_integer() ? static_cast<double>(integer_) : floating_; }

  /// Whether a double holds an integer exactly.
  static bool is_exact(long value) { return -exact_limit <= value && value <= exact_limit; }

 private:
  enum class Kind { other, integer, floating };
  static constexpr long exact_limit = 1L << 53;

  void read();

  Ref object_;  ///< First, so that it is where a plain reference is (instance.hpp).
  Kind kind_ = Kind::other;
  union {
    long integer_ = 0;
    double floating_;
  };
};

inline void Number::read() {
  PyObject* object = object_.get();
  if (object == nullptr) {
    return;
  }
  if (PyFloat_CheckExact(object)) {
    kind_ = Kind::floating;
    floating_ = PyFloat_AS_DOUBLE(object);
  } else if (PyLong_CheckExact(object)) {
    int overflow = 0;
    const long value = PyLong_AsLongAndOverflow(object, &overflow);
    if (overflow == 0 && is_exact(value)) {
      kind_ = Kind::integer;
      integer_ = value;
    }
  }
}

/// A reference of one's own to what a field holds: code that an operator or a call runs may rebind
/// the field meanwhile. Raises `AttributeError` where the field is not set.
Ref value_of(const Ref& field);

/// The interpreter's way, for operands of any type: raises what their operators raise.
Number operate(binaryfunc operation, const Ref& left, const Ref& right);
bool compare(const Ref& left, const Ref& right, int operation);
bool truth(const Ref& value);
double as_double(const Ref& value);

/// A sum or a difference, which of two ints is an int.
template <typename Operation>
[[gnu::always_inline]] inline Number sum(const Number& left, const Number& right,
                                         Operation operation, binaryfunc general) {
  if (left.is_integer() && right.is_integer()) {
    const long result = operation(left.integer(), right.integer());
    if (Number::is_exact(result)) {
      return Number(result);
    }
  } else if (left.is_known() && right.is_known()) {
    return operation(left.floating(), right.floating());
  }
  return operate(general, left, right);
}

template <typename Comparison>
[[gnu::always_inline]] inline bool comparison(const Number& left, const Number& right,
                                              Comparison compare_known, int general) {
  if (left.is_known() && right.is_known()) {
    return compare_known(left.floating(), right.floating());
  }
  return compare(left, right, general);
}

[[gnu::always_inline]] inline Number operator+(const Number& left, const Number& right) {
  return sum(left, right, std::plus<>(), PyNumber_Add);
}
[[gnu::always_inline]] inline Number operator-(const Number& left, const Number& right) {
  return sum(left, right, std::minus<>(), PyNumber_Subtract);
}
inline Number operator*(const Number& left, const Number& right) {
  if (left.is_known() && right.is_known() && !(left.is_integer() && right.is_integer())) {
    return left.floating() * right.floating();
  }
  return operate(PyNumber_Multiply, left, right);
}
/// Of two ints as well a float: the quotient of two exact doubles is rounded correctly.
inline Number operator/(const Number& left, const Number& right) {
  if (left.is_known() && right.is_known() && right.floating() != 0.0) {
    return left.floating() / right.floating();
  }
  return operate(PyNumber_TrueDivide, left, right);
}

inline bool operator<(const Number& left, const Number& right) {
  return comparison(left, right, std::less<>(), Py_LT);
}
inline bool operator>(const Number& left, const Number& right) {
  return comparison(left, right, std::greater<>(), Py_GT);
}
inline bool operator<=(const Number& left, const Number& right) {
  return comparison(left, right, std::less_equal<>(), Py_LE);
}
inline bool operator>=(const Number& left, const Number& right) {
  return comparison(left, right, std::greater_equal<>(), Py_GE);
}
/// A text is equal to itself.
inline bool operator!=(const Ref& left, const Ref& right) {
  const bool same_text =
      left.get() == right.get() && left.get() != nullptr && PyUnicode_CheckExact(left.get());
  return !same_text && compare(left, right, Py_NE);
}

inline bool truth(const Number& value) {
  return value.is_known() ? value.floating() != 0.0 : truth(Ref(value));
}

inline bool is_infinite(const Number& value) {
  return std::isinf(value.is_known() ? value.floating() : as_double(value));
}

}  // namespace decision_bounds::python
