#pragma once

/// The interpreter's own + - * / and comparisons on references. Exact floats and small exact ints
/// take a short way with the very same result.

#include <cmath>
#include <cstdint>
#include <functional>

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// The value of an exact float, or of an exact int of one machine digit, which a double holds
/// exactly. Of any other object, and of a field that is not set, nothing is known.
struct SmallNumber {
  enum class Kind { other, integer, floating };

  Kind kind = Kind::other;
  std::int64_t integer = 0;
  double floating = 0.0;  ///< The value, of whichever kind.

  static SmallNumber of(const Ref& ref);
};

inline SmallNumber SmallNumber::of(const Ref& ref) {
  PyObject* object = ref.get();
  if (object == nullptr) {
    return {};
  }
  if (PyFloat_CheckExact(object)) {
    return {Kind::floating, 0, PyFloat_AS_DOUBLE(object)};
  }
  if (!PyLong_CheckExact(object)) {
    return {};
  }
  auto* number = reinterpret_cast<PyLongObject*>(object);
#if PY_VERSION_HEX >= 0x030C0000
  if (!PyUnstable_Long_IsCompact(number)) {
    return {};
  }
  const std::int64_t value = PyUnstable_Long_CompactValue(number);
#else
  const Py_ssize_t signed_digits = Py_SIZE(number);
  if (signed_digits < -1 || signed_digits > 1) {
    return {};
  }
  const std::int64_t value = signed_digits * static_cast<std::int64_t>(number->ob_digit[0]);
#endif
  return {Kind::integer, value, static_cast<double>(value)};
}

/// A reference of one's own to what a field holds: code that an operator or a call runs may rebind
/// the field meanwhile. Raises `AttributeError` where the field is not set.
Ref value_of(const Ref& field);

/// The interpreter's way, for operands of any type: raises what their operators raise, and
/// `AttributeError` for a field that is not set.
Ref operate(binaryfunc operation, const Ref& left, const Ref& right);
bool compare(const Ref& left, const Ref& right, int comparison);
bool truth_of_any(const Ref& value);
double as_double(const Ref& value);

template <typename Operation>
Ref arithmetic(const Ref& left, const Ref& right, Operation operation, binaryfunc any) {
  const SmallNumber first = SmallNumber::of(left);
  const SmallNumber second = SmallNumber::of(right);
  using enum SmallNumber::Kind;
  if (first.kind == other || second.kind == other) {
    return operate(any, left, right);
  }
  if (first.kind == integer && second.kind == integer) {
    return Ref::checked(PyLong_FromLongLong(operation(first.integer, second.integer)));
  }
  return Ref(operation(first.floating, second.floating));
}

template <typename Comparison>
bool comparison(const Ref& left, const Ref& right, Comparison compare_small, int any) {
  const SmallNumber first = SmallNumber::of(left);
  const SmallNumber second = SmallNumber::of(right);
  using enum SmallNumber::Kind;
  if (first.kind == other || second.kind == other) {
    return compare(left, right, any);
  }
  return compare_small(first.floating, second.floating);
}

inline Ref operator+(const Ref& left, const Ref& right) {
  return arithmetic(left, right, std::plus<>(), PyNumber_Add);
}
inline Ref operator-(const Ref& left, const Ref& right) {
  return arithmetic(left, right, std::minus<>(), PyNumber_Subtract);
}
inline Ref operator*(const Ref& left, const Ref& right) {
  return arithmetic(left, right, std::multiplies<>(), PyNumber_Multiply);
}
/// Small ints divide as doubles: the quotient of two exact doubles is rounded correctly.
inline Ref operator/(const Ref& left, const Ref& right) {
  const SmallNumber dividend = SmallNumber::of(left);
  const SmallNumber divisor = SmallNumber::of(right);
  using enum SmallNumber::Kind;
  if (dividend.kind == other || divisor.kind == other || divisor.floating == 0.0) {
    return operate(PyNumber_TrueDivide, left, right);
  }
  return Ref(dividend.floating / divisor.floating);
}
inline Ref operator+(const Ref& left, int right) {
  return left + Ref(right);
}
inline Ref operator-(const Ref& left, int right) {
  return left - Ref(right);
}

inline bool operator<(const Ref& left, const Ref& right) {
  return comparison(left, right, std::less<>(), Py_LT);
}
inline bool operator>(const Ref& left, const Ref& right) {
  return comparison(left, right, std::greater<>(), Py_GT);
}
inline bool operator>=(const Ref& left, const Ref& right) {
  return comparison(left, right, std::greater_equal<>(), Py_GE);
}
inline bool operator<=(const Ref& left, int right) {
  return comparison(left, Ref(right), std::less_equal<>(), Py_LE);
}
inline bool operator>=(const Ref& left, int right) {
  return left >= Ref(right);
}
inline bool operator!=(const Ref& left, const Ref& right) {
  return compare(left, right, Py_NE);
}

inline bool truth(const Ref& value) {
  if (value.get() == Py_True || value.get() == Py_False) {
    return value.get() == Py_True;
  }
  const SmallNumber number = SmallNumber::of(value);
  return number.kind == SmallNumber::Kind::other ? truth_of_any(value) : number.floating != 0.0;
}

inline bool is_infinite(const Ref& value) {
  const bool is_float = value.get() != nullptr && PyFloat_CheckExact(value.get());
  return std::isinf(is_float ? PyFloat_AS_DOUBLE(value.get()) : as_double(value));
}

}  // namespace decision_bounds::python
