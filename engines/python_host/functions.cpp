/// The functions of the module: `never`, `_nothing` and `_wait`.

#include "decision_bounds/wait.hpp"
#include "python_host/operation.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

Ref return_false(const Python& /*host*/, const Arguments& /*arguments*/) { return Ref(false); }

Ref wait(const Python& host, const Arguments& arguments) {
  auto changed = arguments.get<Condition>(0);
  decision_bounds::wait(changed, arguments.get<StopFunction>(1), arguments.get<Optional>(2),
                        arguments.get<Function>(3), host);
  return Ref::none();
}

constexpr Definition definitions[] = {
    {"never", return_false},
    {"_nothing",
     [](const Python& /*host*/, const Arguments& /*arguments*/) { return Ref::none(); }},
    {"_wait", wait},
};

}  // namespace

const std::span<const Definition> functions = definitions;

bool is_never(PyObject* object) { return is_operation(object, return_false); }

}  // namespace decision_bounds::python
