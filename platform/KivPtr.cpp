#include "TarnRegFile/platform/KivPtr.h"

namespace Kiv {

PtrInterface::~PtrInterface() = default;

void PtrInterface::onZeroReferences() const noexcept { delete this; }

}  // namespace Kiv
