#include "python_host/declaration.hpp"

#include "python_host/imports.hpp"

namespace decision_bounds::python {

namespace {

/// Executes a declaration with the module as its globals, so that this is where the host looks its
/// names up, and returns the class or function that it declares.
Ref declare(State* state, const Declaration& declaration) {
  // Declared types stay texts, as `from __future__ import annotations` has it.
  PyCompilerFlags flags{};
  flags.cf_flags = CO_FUTURE_ANNOTATIONS;
  flags.cf_feature_version = PY_MINOR_VERSION;
  const Ref code = Ref::checked(
      Py_CompileStringFlags(declaration.text, "<decision_bounds>", Py_file_input, &flags));
  const Ref declared = Ref::checked(PyDict_New());
  Ref::checked(PyEval_EvalCode(code.get(), state->globals, declared.get()));
  return Ref::checked(
      Py_XNewRef(PyDict_GetItemWithError(declared.get(), interned(declaration.name).get())));
}

void bind(State* state, const Declaration& declaration, const Ref& object) {
  check(PyObject_SetAttrString(state->module, declaration.name, object.get()));
}

void set(const Ref& type, const char* name, const Ref& value) {
  check(PyObject_SetAttrString(type.get(), name, value.get()));
}

/// What the dictionary of a class holds under a name, unbound; nothing where it holds nothing.
Ref own_attribute(const Ref& type, const char* name) {
  PyObject* dictionary = reinterpret_cast<PyTypeObject*>(type.get())->tp_dict;
  return Ref::to(PyDict_GetItemWithError(dictionary, interned(name).get()));
}

/// Has the host's record facility derive constructor, text form, equality and the rest from the
/// declared fields. It reads the defaults under the names of the fields, which the attributes of
/// the storage leave to them meanwhile.
void make_record(const Ref& type, const Ref& declared, std::span<const Field> fields) {
  const Ref descriptors = Ref::checked(PyDict_New());
  for (const Field& field : fields) {
    check(
        PyDict_SetItemString(descriptors.get(), field.name, own_attribute(type, field.name).get()));
    const Ref value = own_attribute(declared, field.name);
    check(PyObject_SetAttrString(type.get(), field.name, value.get()));  // without one, deletes
  }
  set(type, "__annotations__", attribute(declared, "__annotations__"));
  call_method("dataclass", import("dataclasses"), type);
  for (const Field& field : fields) {
    set(type, field.name, Ref::to(PyDict_GetItemString(descriptors.get(), field.name)));
  }
}

}  // namespace

Ref bind_declared(State* state, const Declaration& declaration) {
  Ref declared = declare(state, declaration);
  bind(state, declaration, declared);
  return declared;
}

void bind_function(State* state, const Declaration& declaration, Body body) {
  bind(state, declaration, make_operation(state, declare(state, declaration), body));
}

void bind_class(State* state, const Declaration& declaration, const Ref& type,
                std::span<const Field> fields, std::span<const Definition> operations) {
  const Ref declared = declare(state, declaration);
  set(type, "__module__", attribute(declared, "__module__"));
  set(type, "__name__", interned(declaration.name));  // without the module, as error texts have it
  set(type, "__doc__", attribute(declared, "__doc__"));
  for (const Definition& operation : operations) {
    set(type, operation.name,
        make_operation(state, own_attribute(declared, operation.name), operation.body));
  }
  if (own_attribute(declared, "__annotations__").get() != nullptr) {
    make_record(type, declared, fields);
  }
  bind(state, declaration, type);
}

}  // namespace decision_bounds::python
