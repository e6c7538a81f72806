#include "TarnRegFile/platform/KivNotifierList.h"

#include "TarnRegFile/platform/Trace.h"

namespace Kiv {

namespace {
TraceHandle kTrace("Kiv/Entity");
}  // namespace

void notifierListDropped(std::string const& notifier, std::exception_ptr const& e) noexcept {
  // Only one exception can travel on; the caller learns of the first.
  try {
    std::rethrow_exception(e);
  } catch (std::exception const& x) {
    kTrace.line(0, "notifiee of {} also failed: {}", notifier, x.what());
  } catch (...) {
    kTrace.line(0, "notifiee of {} also failed: {}", notifier, "an exception of unknown type");
  }
}

}  // namespace Kiv
