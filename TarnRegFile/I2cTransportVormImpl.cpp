#include "TarnRegFile/I2cTransportVormImpl.h"

#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>

#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/I2cTransportVormImpl");

// Each register is one 4-byte word on the chip.
constexpr U8 kAddrBlockSize = 4;

Kiv::Ptr<Hardware::Vorm> const& checkedVorm(Kiv::Ptr<Hardware::Vorm> const& vorm) {
  if (!vorm) throw std::runtime_error("I2cTransportVormImpl needs a hardware-access manager");
  return vorm;
}

BaseTransportMethodImpl* createI2cVormTransport(BaseTransportDescriptor const& descriptor,
                                                TransportMethodRegFile const& regFile) {
  auto const& d =
      transportDescriptorAs<I2cVormTransportDescriptor>(descriptor, "TarnRegFile::I2cVormTransportDescriptor");
  if (!d.hasVorm())
    throw std::runtime_error(fmt::format("descriptor of transport '{}' holds no hardware-access manager",
                                         transportKeyText(kI2cVormTransportKey)));
  return new I2cTransportVormImpl(d.vorm(), d.devId(), regFile.csvPath().c_str(), regFile.regFileModel());
}

[[maybe_unused]] bool const kRegistered = [] {
  TransportMethod::transportFactoryIs(kI2cVormTransportKey, createI2cVormTransport);
  return true;
}();

}  // namespace

I2cTransportVormImpl::I2cTransportVormImpl(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId, char const* csvPath,
                                           Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel)
    : BaseTransportMethodImpl(csvPath, kAddrBlockSize, regFileModel),
      vorm_(checkedVorm(vorm)),
      sm_(I2cTransportVormImplSm::I2cTransportVormImplSmIs(vorm_, devId, regFileHelper())) {
  kTrace.line(5, "I2cTransportVormImpl on {} to device {:#x}", vorm_->name(), devId);
}

I2cTransportVormImpl::~I2cTransportVormImpl() {
  // Someone else may still hold the state machine; its entries must go with the transport.
  sm_->i2cTransportRequestDelAll();
}

uint32_t I2cTransportVormImpl::regRead(char const* regName) {
  throw std::runtime_error(fmt::format("regRead({}) not supported", regName));
}

void I2cTransportVormImpl::regWrite(char const* regName, uint32_t value) {
  throw std::runtime_error(fmt::format("regWrite({}, {}) not supported", regName, value));
}

void I2cTransportVormImpl::regReadWithCallback(char const* regName, RegReadCallback const& cb) {
  sm_->vormRead(regName, cb);
}

void I2cTransportVormImpl::regWriteWithCallback(char const* regName, uint32_t value, RegWriteCallback const& cb) {
  sm_->vormWrite(regName, value, cb);
}

}  // namespace TarnRegFile
