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

#include "python_host/interpreter.hpp"

namespace decision_bounds::python {

class Number;

// The interpreter's way, for operands of any type: raises what their operators raise. Kept apart so
// that the short ways stay short.
Number operate(binaryfunc operation, const Number& left, const Number& right);
bool compare(const Number& left, const Number& right, int operation);
bool has_truth(const Number& value);
double as_double(const Number& value);

/// A number, or any object where one was handed in; or nothing, for a field that is not set.
class Number {
 public:
  Number() = default;
  Number(double value) : kind_(Kind::floating), value_(value) {}
  Number(int value) : kind_(Kind::integer), value_(static_cast<double>(value)) {}
  Number(Ref object) : object_(std::move(object)) { read(); }
  Number(const Number&) = default;
  Number(Number&&) noexcept = default;
  ~Number() = default;

  /// The old object goes last, when the new value stands.
  Number& operator=(Number other) noexcept {
    kind_ = other.kind_;
    value_ = other.value_;
    object_ = std::move(other.object_);
    return *this;
  }

  /// The object that the number was read from, or a new one. Raises `AttributeError` where nothing
  /// is set.
  operator Ref() const;

  /// The same, borrowed: the number keeps the object.
  PyObject* kept_object();
  /// The object that is kept, borrowed; null where there is none.
  PyObject* object() const { return object_.get(); }
  bool is_set() const { return is_known() || object_.get() != nullptr; }

  bool is_known() const { return kind_ != Kind::other; }
  bool is_floating() const { return kind_ == Kind::floating; }
  /// The value of a number that is known.
  double value() const { return value_; }

  /// A sum or a difference: an int of two ints, otherwise a float.
  template <typename Operation>
  static Number sum(const Number& left, const Number& right, Operation operation,
                    binaryfunc general) {
    const Kind kind = common_kind(left, right);
    if (kind != Kind::other) {
      const double result = operation(left.value(), right.value());
      if (kind == Kind::floating || std::fabs(result) < exact_limit) {
        return {kind, result};
      }
    }
    return operate(general, left, right);
  }
  static bool are_known(const Number& left, const Number& right) {
    return common_kind(left, right) != Kind::other;
  }
  static bool are_integers(const Number& left, const Number& right) {
    return common_kind(left, right) == Kind::integer;
  }

 private:
  /// The bits that two kinds have in common are the kind of their sum.
  enum class Kind : unsigned { other = 0, floating = 1, integer = 3 };
  // 2 to the 53rd: a larger int may have been rounded to this double.
  static constexpr double exact_limit = 9007199254740992.0;

  Number(Kind kind, double value) : kind_(kind), value_(value) {}

  static Kind common_kind(const Number& left, const Number& right) {
    return static_cast<Kind>(static_cast<unsigned>(left.kind_) &
                             static_cast<unsigned>(right.kind_));
  }
  void read();

  Ref object_;
  Kind kind_ = Kind::other;
  double value_ = 0.0;
};

inline void Number::read() {
  PyObject* object = object_.get();
  if (object == nullptr) {
    return;
  }
  if (PyFloat_CheckExact(object)) {
    kind_ = Kind::floating;
    value_ = PyFloat_AS_DOUBLE(object);
  } else if (PyLong_CheckExact(object)) {
    int overflow = 0;
    const auto value = static_cast<double>(PyLong_AsLongLongAndOverflow(object, &overflow));
    if (overflow == 0 && std::fabs(value) < exact_limit) {
      kind_ = Kind::integer;
      value_ = value;
    }
  }
}

inline Number operator+(const Number& left, const Number& right) {
  return Number::sum(left, right, std::plus<>(), PyNumber_Add);
}
inline Number operator-(const Number& left, const Number& right) {
  return Number::sum(left, right, std::minus<>(), PyNumber_Subtract);
}
inline Number operator*(const Number& left, const Number& right) {
  if (Number::are_known(left, right) && !Number::are_integers(left, right)) {
    return left.value() * right.value();
  }
  return operate(PyNumber_Multiply, left, right);
}
/// Of two ints as well a float: the quotient of two exact doubles is rounded correctly.
inline Number operator/(const Number& left, const Number& right) {
  if (Number::are_known(left, right) && right.value() != 0.0) {
    return left.value() / right.value();
  }
  return operate(PyNumber_TrueDivide, left, right);
}

template <typename Comparison>
inline bool comparison(const Number& left, const Number& right, Comparison compare_known,
                       int general) {
  if (Number::are_known(left, right)) {
    return compare_known(left.value(), right.value());
  }
  return compare(left, right, general);
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

inline bool truth(const Number& value) {
  return value.is_known() ? value.value() != 0.0 : has_truth(value);
}

inline bool is_infinite(const Number& value) {
  return std::isinf(value.is_known() ? value.value() : as_double(value));
}

}  // namespace decision_bounds::python
