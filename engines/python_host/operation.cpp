#include "python_host/operation.hpp"

#include <algorithm>
#include <array>

#include "python_host/error.hpp"

namespace decision_bounds::python {

namespace {

/// Enough for every operation of the module; checked when one is made.
constexpr std::size_t most_parameters = 11;

struct Operation {
  PyObject_HEAD
  vectorcallfunc vectorcall;
  State* state;
  Body body;
  Ref module;             ///< Keeps the state.
  Ref declared;           ///< The function of the host's language that declares the operation.
  Ref names;              ///< The parameters' names, interned.
  Ref defaults;           ///< Of the last parameters that can be passed by position, or None.
  Ref keyword_defaults;   ///< Of parameters that can only be passed by name, or None.
  Py_ssize_t positional;  ///< Parameters that can be passed by position.
  Py_ssize_t parameters;  ///< With those that can only be passed by name.
  bool takes_any_more;    ///< Further arguments by position are taken and ignored.
  PyObject* dict;
  PyObject* weak_references;

  static Operation* of(PyObject* object) { return reinterpret_cast<Operation*>(object); }
  PyObject* name(Py_ssize_t parameter) const { return PyTuple_GET_ITEM(names.get(), parameter); }
};

int traverse(PyObject* object, visitproc visit, void* arg) {
  const Operation* self = Operation::of(object);
  Py_VISIT(Py_TYPE(object));
  Py_VISIT(self->module.get());
  Py_VISIT(self->declared.get());
  Py_VISIT(self->defaults.get());
  Py_VISIT(self->keyword_defaults.get());
  Py_VISIT(self->dict);
  return 0;
}

// There is no clear: an operation can be called as long as anybody holds it. The cycles that it is
// part of go through the module's dictionary or a class, which are cleared.
void dealloc(PyObject* object) {
  PyTypeObject* type = Py_TYPE(object);
  PyObject_GC_UnTrack(object);
  Operation* self = Operation::of(object);
  if (may_have_weak_references(self->weak_references)) {
    PyObject_ClearWeakRefs(object);
  }
  Py_CLEAR(self->dict);
  for (Ref* kept :
       {&self->keyword_defaults, &self->defaults, &self->names, &self->declared, &self->module}) {
    *kept = {};
  }
  type->tp_free(object);
  Py_DECREF(type);
}

/// Whether the arguments of a call stand as the parameters do, one for each: most calls' do.
bool are_in_order(const Operation& self, Py_ssize_t given, PyObject* keywords) {
  const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
  if (self.takes_any_more) {
    return named == 0 && given >= self.parameters;
  }
  if (given > self.positional || given + named != self.parameters) {
    return false;
  }
  for (Py_ssize_t index = 0; index < named; ++index) {
    if (PyTuple_GET_ITEM(keywords, index) != self.name(given + index)) {
      return false;
    }
  }
  return true;
}

/// Whether a call gives all parameters by position but the last `missing`, which have defaults.
/// What holds the arguments of other calls is left out then: that saves 6 % of a cache hit.
bool lacks_only_defaults(const Operation& self, Py_ssize_t missing, PyObject* keywords) {
  return keywords == nullptr && missing > 0 && self.parameters == self.positional &&
         self.defaults.get() != Py_None && missing <= PyTuple_GET_SIZE(self.defaults.get());
}

/// The place of the parameter that a keyword names, or a negative number.
Py_ssize_t parameter_named(const Operation& self, PyObject* keyword) {
  for (Py_ssize_t index = 0; index < self.parameters; ++index) {
    if (self.name(index) == keyword) {
      return index;
    }
  }
  for (Py_ssize_t index = 0; index < self.parameters; ++index) {
    if (checked(PyObject_RichCompareBool, keyword, self.name(index), Py_EQ) != 0) {
      return index;
    }
  }
  return -1;
}

Ref default_of(const Operation& self, Py_ssize_t parameter) {
  if (parameter >= self.positional) {
    return self.keyword_defaults.get() == Py_None
               ? Ref()
               : item(self.keyword_defaults.get(), Ref::to(self.name(parameter)));
  }
  const Py_ssize_t count =
      self.defaults.get() == Py_None ? 0 : PyTuple_GET_SIZE(self.defaults.get());
  const Py_ssize_t index = parameter - (self.positional - count);
  return index < 0 ? Ref() : Ref::to(PyTuple_GET_ITEM(self.defaults.get(), index));
}

/// The arguments of a call in the order of the parameters. They are held: comparing a keyword, or
/// looking for a default, can run code.
using Places = std::array<Ref, most_parameters>;

/// Returns false where the arguments do not fit.
bool bind(const Operation& self, PyObject* const* arguments, Py_ssize_t given, PyObject* keywords,
          Places& places) {
  if (given > self.positional && !self.takes_any_more) {
    return false;
  }
  const auto place = [&](Py_ssize_t parameter) -> Ref& {
    return places[static_cast<std::size_t>(parameter)];
  };
  for (Py_ssize_t index = 0; index < std::min(given, self.positional); ++index) {
    place(index) = Ref::to(arguments[index]);
  }
  const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
  for (Py_ssize_t index = 0; index < named; ++index) {
    const Py_ssize_t parameter = parameter_named(self, PyTuple_GET_ITEM(keywords, index));
    if (parameter < 0 || place(parameter).get() != nullptr) {
      return false;
    }
    place(parameter) = Ref::to(arguments[given + index]);
  }
  for (Py_ssize_t parameter = 0; parameter < self.parameters; ++parameter) {
    if (place(parameter).get() == nullptr) {
      place(parameter) = default_of(self, parameter);
    }
    if (place(parameter).get() == nullptr) {
      return false;
    }
  }
  return true;
}

PyObject* vectorcall(PyObject* callable, PyObject* const* arguments, std::size_t flags,
                     PyObject* keywords) {
  return entry_of_operation([&]() -> PyObject* {
    const Operation& self = *Operation::of(callable);
    const Python host{self.state};
    const Py_ssize_t given = PyVectorcall_NARGS(flags);
    if (are_in_order(self, given, keywords)) {
      return self.body(host, Arguments(arguments)).release();
    }
    PyObject* values[most_parameters];
    const Py_ssize_t missing = self.parameters - given;
    if (lacks_only_defaults(self, missing, keywords)) {
      // Borrowed: the caller holds the arguments, and the tuple of the defaults does not change.
      const Py_ssize_t first = PyTuple_GET_SIZE(self.defaults.get()) - missing;
      PyObject** rest = std::copy_n(arguments, given, values);
      for (Py_ssize_t index = 0; index < missing; ++index) {
        rest[index] = PyTuple_GET_ITEM(self.defaults.get(), first + index);
      }
      return self.body(host, Arguments(values)).release();
    }
    Places places;
    if (bind(self, arguments, given, keywords, places)) {
      std::ranges::transform(places, values, &Ref::get);
      return self.body(host, Arguments(values)).release();
    }
    // The declared function does not take them either, and words the error as the host does.
    checked(PyObject_Vectorcall, self.declared, arguments, flags, keywords);
    PyErr_SetString(PyExc_SystemError, "the arguments do not fit");
    throw Raised{};
  });
}

PyObject* bind_to_object(PyObject* operation, PyObject* object, PyObject* /*type*/) {
  return object == nullptr || object == Py_None ? Py_NewRef(operation)
                                                : PyMethod_New(operation, object);
}

PyObject* repr(PyObject* object) {
  return entry(static_cast<PyObject*>(nullptr), [&] {
    const Ref name = attribute(Operation::of(object)->declared, "__qualname__");
    return PyUnicode_FromFormat("<operation %U>", name.get());
  });
}

/// Pickled by its name, as a function is.
PyObject* reduce(PyObject* object, PyObject* /*none*/) {
  return PyObject_GetAttrString(Operation::of(object)->declared.get(), "__qualname__");
}

/// The attribute of the declared function that the closure names.
PyObject* declared_attribute(PyObject* object, void* name) {
  return PyObject_GetAttrString(Operation::of(object)->declared.get(),
                                static_cast<const char*>(name));
}

constexpr PyGetSetDef answered_by_declared(const char* name) {
  return {name, declared_attribute, nullptr, nullptr, const_cast<char*>(name)};
}

// `__code__` and `__globals__` are among them because `inspect` takes what has them for a function.
PyGetSetDef descriptors[] = {
    answered_by_declared("__name__"),
    answered_by_declared("__qualname__"),
    answered_by_declared("__module__"),
    answered_by_declared("__doc__"),
    answered_by_declared("__annotations__"),
    answered_by_declared("__defaults__"),
    answered_by_declared("__kwdefaults__"),
    answered_by_declared("__code__"),
    answered_by_declared("__globals__"),
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(Operation, vectorcall), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(Operation, dict), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(Operation, weak_references), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyMethodDef methods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(bind_to_object)},
    {Py_tp_repr, reinterpret_cast<void*>(repr)},
    {Py_tp_getset, descriptors},
    {Py_tp_members, members},
    {Py_tp_methods, methods},
    {0, nullptr},
};

PyType_Spec type_spec = {"decision_bounds.operation", sizeof(Operation), 0,
                         Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                             Py_TPFLAGS_METHOD_DESCRIPTOR | Py_TPFLAGS_DISALLOW_INSTANTIATION |
                             Py_TPFLAGS_IMMUTABLETYPE,
                         slots};

Py_ssize_t integer_attribute(const Ref& object, const char* name) {
  return checked(PyLong_AsSsize_t, attribute(object, name));
}

}  // namespace

Ref make_operation_type(PyObject* module) {
  return checked(PyType_FromModuleAndSpec, module, &type_spec, nullptr);
}

bool is_operation(PyObject* object, Body body) {
  return object != nullptr && Py_TYPE(object)->tp_dealloc == dealloc &&
         Operation::of(object)->body == body;
}

Ref make_operation(State* state, const Ref& declared, Body body) {
  auto* type = as_type(state->operation_type);
  Ref object = checked(type->tp_alloc, type, 0);
  Operation* self = Operation::of(object.get());
  self->vectorcall = vectorcall;
  self->state = state;
  self->body = body;
  self->module = Ref::to(state->module);
  self->declared = declared;
  const Ref code = attribute(declared, "__code__");
  self->names = attribute(code, "co_varnames");
  self->defaults = attribute(declared, "__defaults__");
  self->keyword_defaults = attribute(declared, "__kwdefaults__");
  self->positional = integer_attribute(code, "co_argcount");
  self->parameters = self->positional + integer_attribute(code, "co_kwonlyargcount");
  self->takes_any_more = (integer_attribute(code, "co_flags") & CO_VARARGS) != 0;
  if (self->parameters > static_cast<Py_ssize_t>(most_parameters)) {
    PyErr_SetString(PyExc_SystemError, "an operation has too many parameters");
    throw Raised{};
  }
  defer_reference_counting(object.get());
  return object;
}

}  // namespace decision_bounds::python
