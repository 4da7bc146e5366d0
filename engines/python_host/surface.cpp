#include "python_host/surface.hpp"

#include <array>
#include <cstring>
#include <string_view>

#include "python_host/error.hpp"
#include "python_host/interpreter.hpp"
#include "surface_text.hpp"

namespace decision_bounds::python {

namespace {

constexpr std::array classes = {&share_class,         &held_class,       &charges_class,
                                &request_rates_class, &run_budget_class, &daily_spend_class};

bool is_text(const Ref& name, std::string_view text) {
  return PyUnicode_CompareWithASCIIString(name.get(), text.data()) == 0;
}

/// The function with the body of its name, or itself where there is none.
Ref with_body(State* state, const Ref& name, const Ref& declared,
              std::span<const Definition> definitions) {
  for (const Definition& each : definitions) {
    if (is_text(name, each.name)) {
      return make_operation(state, declared, each.body);
    }
  }
  return declared;
}

bool is_descriptor(const Ref& attribute) {
  return attribute.get() != nullptr && Py_IS_TYPE(attribute.get(), &PyGetSetDescr_Type);
}

/// The type that stores the objects of a declared class, with all that the class declares; where
/// the class is a record, with what the host's record facility has made of it.
Ref make_class(State* state, const ClassDefinition& definition, const Ref& declared) {
  Ref type = definition.make_type(state->module);
  // Without the module, as error texts have it.
  checked(PyObject_SetAttrString, type, "__name__", attribute(declared, "__name__"));
  PyObject* own_dict = as_type(type)->tp_dict;
  Py_ssize_t position = 0;
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  PyObject* declared_dict = as_type(declared)->tp_dict;
  while (PyDict_Next(declared_dict, &position, &key, &value) != 0) {
    const Ref name = Ref::to(key);
    const Ref attribute = Ref::to(value);
    // A field keeps the descriptor of its storage: the record facility has read its default.
    if (!is_descriptor(attribute) && !is_descriptor(item(own_dict, name))) {
      checked(PyObject_SetAttr, type, name,
              with_body(state, name, attribute, definition.operations));
    }
  }
  return type;
}

Ref implemented(State* state, const Ref& name, const Ref& declared) {
  for (const ClassDefinition* each : classes) {
    if (is_text(name, std::strchr(each->type_name, '.') + 1)) {
      return make_class(state, *each, declared);
    }
  }
  return with_body(state, name, declared, functions);
}

/// `__setitem__(name, value)` of the namespace in which the text is executed: binds the name in the
/// module.
PyObject* bind_name(PyObject* module, PyObject* const* arguments, Py_ssize_t /*two*/) {
  return entry(static_cast<PyObject*>(nullptr), [&] {
    const Ref name = Ref::to(arguments[0]);
    checked(PyObject_SetAttr, module, name,
            implemented(State::of(module), name, Ref::to(arguments[1])));
    return Ref::none().release();
  });
}

PyMethodDef bind_name_definition = {
    "__setitem__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(bind_name)),
    METH_FASTCALL, nullptr};

/// A dictionary that hands on to the module what is set in it, and stays empty: so names are looked
/// up in the module, where they are what the module binds.
Ref make_namespace(PyObject* module) {
  const Ref attributes = checked(PyDict_New);
  checked(PyDict_SetItemString, attributes, "__setitem__",
          checked(PyCFunction_New, &bind_name_definition, module));
  const Ref bases = tuple_of(as_object(&PyDict_Type));
  return call(call(as_object(&PyType_Type), interned("namespace"), bases, attributes));
}

}  // namespace

void bind_surface(State* state) {
  // Declared types stay texts, as `from __future__ import annotations` has it.
  PyCompilerFlags flags{};
  flags.cf_flags = CO_FUTURE_ANNOTATIONS;
  flags.cf_feature_version = PY_MINOR_VERSION;
  const Ref code = Ref::owned(shielded([&] {
    return Py_CompileStringFlags(surface_text, "<decision_bounds>", Py_file_input, &flags);
  }));
  checked(PyEval_EvalCode, code, state->globals, make_namespace(state->module));
}

}  // namespace decision_bounds::python
