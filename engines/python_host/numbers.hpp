#pragma once

/// The interpreter's own + - * / and comparisons on references. Exact floats and small exact ints
/// take a short way with the very same result.

#include <cmath>
#include <cstddef>
#include <functional>

#include "python_host/ref.hpp"

namespace decision_bounds::python {

// The product of two small ints of the older versions has 60 bits.
static_assert(sizeof(long) == 8);

inline bool is_float(PyObject* object) { return object != nullptr && PyFloat_CheckExact(object); }

/// Whether the object is an exact int of one machine digit at most, which a double holds exactly.
inline bool is_small_int(PyObject* object) {
  if (object == nullptr || !PyLong_CheckExact(object)) {
    return false;
  }
#if PY_VERSION_HEX >= 0x030C0000
  return PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(object)) != 0;
#else
  return static_cast<std::size_t>(Py_SIZE(object) + 1) <= 2;  // the sign is the size's
#endif
}

inline long small_int(PyObject* object) {
  auto* number = reinterpret_cast<PyLongObject*>(object);
#if PY_VERSION_HEX >= 0x030C0000
  return PyUnstable_Long_CompactValue(number);
#else
  return Py_SIZE(number) * static_cast<long>(number->ob_digit[0]);
#endif
}

/// Whether the object is an exact float or a small int; then its value.
inline bool read_small(PyObject* object, double& value) {
  if (is_float(object)) {
    value = PyFloat_AS_DOUBLE(object);
    return true;
  }
  if (is_small_int(object)) {
    value = static_cast<double>(small_int(object));
    return true;
  }
  return false;
}

/// A reference of one's own to what a field holds: code that an operator or a call runs may rebind
/// the field meanwhile. Raises `AttributeError` where the field is not set.
Ref value_of(const Ref& field);

/// The interpreter's way, for operands of any type: raises what their operators raise, and
/// `AttributeError` for a field that is not set.
Ref operate(binaryfunc operation, const Ref& left, const Ref& right);
bool compare(const Ref& left, const Ref& right, int operation);
bool truth_of_any(const Ref& value);
double as_double(const Ref& value);

template <typename Operation>
Ref arithmetic(const Ref& left, const Ref& right, Operation operation, binaryfunc general) {
  if (is_small_int(left.get()) && is_small_int(right.get())) {
    return Ref::checked(PyLong_FromLong(operation(small_int(left.get()), small_int(right.get()))));
  }
  double first = 0.0;
  double second = 0.0;
  if (read_small(left.get(), first) && read_small(right.get(), second)) {
    return Ref(operation(first, second));
  }
  return operate(general, left, right);
}

/// The same with a small int of this side.
template <typename Operation>
Ref arithmetic(const Ref& left, long right, Operation operation, binaryfunc general) {
  if (is_small_int(left.get())) {
    return Ref::checked(PyLong_FromLong(operation(small_int(left.get()), right)));
  }
  return operate(general, left, Ref::checked(PyLong_FromLong(right)));
}

template <typename Comparison>
bool comparison(const Ref& left, const Ref& right, Comparison compare_small, int general) {
  double first = 0.0;
  double second = 0.0;
  if (read_small(left.get(), first) && read_small(right.get(), second)) {
    return compare_small(first, second);
  }
  return compare(left, right, general);
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
  double dividend = 0.0;
  double divisor = 0.0;
  if (read_small(left.get(), dividend) && read_small(right.get(), divisor) && divisor != 0.0) {
    return Ref(dividend / divisor);
  }
  return operate(PyNumber_TrueDivide, left, right);
}
inline Ref operator+(const Ref& left, int right) {
  return arithmetic(left, right, std::plus<>(), PyNumber_Add);
}
inline Ref operator-(const Ref& left, int right) {
  return arithmetic(left, right, std::minus<>(), PyNumber_Subtract);
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
inline bool operator>=(const Ref& left, int right) { return left >= Ref(right); }
inline bool operator!=(const Ref& left, const Ref& right) { return compare(left, right, Py_NE); }

inline bool truth(const Ref& value) {
  if (value.get() == Py_True || value.get() == Py_False) {
    return value.get() == Py_True;
  }
  return is_small_int(value.get()) ? small_int(value.get()) != 0 : truth_of_any(value);
}

inline bool is_infinite(const Ref& value) {
  return std::isinf(is_float(value.get()) ? PyFloat_AS_DOUBLE(value.get()) : as_double(value));
}

}  // namespace decision_bounds::python
