#include "TarnRegFile/BaseTransportMethodImpl.h"

#include "TarnRegFile/platform/Trace.h"

#include <string>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/BaseTransportMethodImpl");

}  // namespace

BaseTransportMethodImpl::BaseTransportMethodImpl(
    char const* csvPath, U8 addrBlockSize, Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel)
    : regFileHelper_(RegFileHelper::RegFileHelperIs(Kiv::String(csvPath))) {
  // A failing init leaves the constructor by exception; the member reference then releases the helper.
  regFileHelper_->init(regFileHelper_->name(), addrBlockSize, regFileModel);
}

BaseTransportMethodImpl::~BaseTransportMethodImpl() = default;

void BaseTransportMethodImpl::sizeNotSupported(char const* regName, TransportOperation op) {
  throw TransportError(std::string("Register ") + regName + " size not supported!",
                       TransportErrorKind::WidthUnsupported, regName, op);
}

void BaseTransportMethodImpl::regReadWithCallback(char const* regName, RegReadCallback const& cb) {
  // Nobody wants the value, so the register is not touched (reads may have side effects).
  if (!cb) return;
  uint32_t const value = regRead(regName);
  cb(regName, RegCallbackStatusSuccess, value);
}

void BaseTransportMethodImpl::regWriteWithCallback(char const* regName, uint32_t value, RegWriteCallback const& cb) {
  regWrite(regName, value);
  if (cb) cb(regName, RegCallbackStatusSuccess);
}

void BaseTransportMethodImpl::dumpAll() { dumpAll(stderr); }

void BaseTransportMethodImpl::dumpAll(std::FILE* out) {
  auto const list = regFileHelper_->regList();
  kTrace.line(5, "dumpAll: {} registers", list->registerNameCount());
  for (auto const& [name, present] : list->registerNames()) {
    uint32_t const value = regRead(name.c_str());
    std::fprintf(out, "%-40s 0x%x\n", name.c_str(), static_cast<unsigned>(value));
  }
}

}  // namespace TarnRegFile
