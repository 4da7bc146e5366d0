/// The function `_wait`.

#include "decision_bounds/wait.hpp"
#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

constexpr Declaration declaration = {"_wait", R"(
def _wait(changed: threading.Condition, stopping: Callable[[], bool], *,
          deadline: float | None = None, clock: Callable[[], float] | None = None) -> None:
    """Wait on ``changed``, whose lock the caller holds, until it is notified or ``_POLL_S`` passes.

    The caller decides again after each return. Raises ``DecisionStopped`` where ``stopping()`` says
    so and, with a deadline and a clock (seconds), ``DecisionTimeout`` where the clock has reached
    the deadline; both before any wait.
    """
)"};

}  // namespace

void bind_wait(State* state) {
  bind_function(state, declaration, [](const Python& host, const Arguments& arguments) {
    auto changed = arguments.get<Condition>(0);
    decision_bounds::wait(changed, arguments.get<StopFunction>(1), arguments.get<Optional>(2),
                          arguments.get<Function>(3), host);
    return Ref::none();
  });
}

}  // namespace decision_bounds::python
