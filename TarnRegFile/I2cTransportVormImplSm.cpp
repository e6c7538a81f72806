#include "TarnRegFile/I2cTransportVormImplSm.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/Errors.h"

#include <fmt/format.h>

#include <utility>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/I2cTransportVormImplSm");

constexpr uint32_t kFailedRead = 0xFFFFFFFF;
// The register offset goes on the wire in two bytes, whatever the map's largest offset.
constexpr U8 kAddressSize = 2;

}  // namespace

// ---------------------------------------------------------------- I2cTransportRequest

I2cTransportRequest::I2cTransportRequest(Kiv::Ptr<Hardware::VormRequest> const& i2cRequest, U32 devId,
                                         Kiv::String const& regName, U16 regAddress)
    : Kiv::Entity(regName), i2cRequest_(i2cRequest), devId_(devId), regName_(regName), regAddress_(regAddress) {}

I2cTransportRequest::~I2cTransportRequest() = default;

void I2cTransportRequest::dataIs(U32 data) {
  if (data == data_) return;
  data_ = data;
  notify<Notifiee>([](Notifiee& n) { n.onData(); });
}

void I2cTransportRequest::issueRequest(Hardware::VormOp::Opcode opcode) {
  i2cRequest_->stateIs(0);
  // Only the low byte is looked at: a devId carrying flags above bit 7 still reaches its
  // peripheral, while one whose low byte is not a 7-bit address is refused by U7.
  Hardware::U7 const peripheral(static_cast<long long>(devId_ & 0xFFu));
  // The map's byte addresses count 4 per register; the chip counts registers.
  Hardware::SmbusAddress const address(static_cast<U16>(regAddress_ >> 2), peripheral, kAddressSize);
  i2cRequest_->opIs(opcode, address, &data_, 1, 4, 4, 0);
  i2cRequest_->stateIs(1);
}

// ---------------------------------------------------------------- the reactor of one entry

// Owns the entry's I2cTransportRequest and watches its request object's status.
class I2cTransportVormImplSm::RequestReactor : public Hardware::VormRequest::Notifiee {
public:
  RequestReactor(I2cTransportVormImplSm& sm, Kiv::Ptr<I2cTransportRequest> request)
      : sm_(sm), request_(std::move(request)) {
    notifierIs(request_->i2cRequest());
  }

  Kiv::Ptr<I2cTransportRequest> const& request() const noexcept { return request_; }

  void onStatus() override {
    KIV_ASSERT(kTrace, request_) << "status of a request without its I2cTransportRequest";
    U8 const status = notifier()->status();
    if (status < Hardware::VormRequest::kStatusFailed) return;  // idle or still issued
    RegCallbackStatus const outcome =
        status == Hardware::VormRequest::kStatusCompleted ? RegCallbackStatusSuccess : RegCallbackStatusFailure;

    // A callback may delete the transport, and with it this reactor: from here on only
    // locals are used.
    Kiv::Ptr<I2cTransportVormImplSm> const sm(&sm_);
    Kiv::Ptr<I2cTransportRequest> const request = request_;
    Kiv::Ptr<Hardware::VormRequest const> const key = request->i2cRequest();
    struct Remove {
      Kiv::Ptr<I2cTransportVormImplSm> const& sm;
      Kiv::Ptr<Hardware::VormRequest const> const& key;
      ~Remove() { sm->i2cTransportRequestDel(key); }
    } const remove{sm, key};

    char const* const regName = request->regName().c_str();
    if (request->writeCallback()) {
      request->writeCallback()(regName, outcome);
    } else if (request->readCallback()) {
      uint32_t const value = outcome == RegCallbackStatusSuccess ? request->data() : kFailedRead;
      if (outcome == RegCallbackStatusSuccess)
        kTrace.line(5, "I2cTransportVormImplSm::onStatus read with callback success reg: {} value: {}", regName,
                    value);
      else
        kTrace.line(5, "I2cTransportVormImplSm::onStatus read with callback fail reg: {}", regName);
      request->readCallback()(regName, outcome, value);
    }
  }

private:
  I2cTransportVormImplSm& sm_;
  Kiv::Ptr<I2cTransportRequest> request_;
};

// ---------------------------------------------------------------- I2cTransportVormImplSm

Kiv::Ptr<I2cTransportVormImplSm> I2cTransportVormImplSm::I2cTransportVormImplSmIs(
    Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId, Kiv::Ptr<RegFileHelper> const& regFile) {
  return Kiv::create<I2cTransportVormImplSm>(vorm, devId, regFile);
}

Kiv::Ptr<I2cTransportVormImplSm> i2cTransportVormImplSmFactory(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId,
                                                               Kiv::Ptr<RegFileHelper> const& regFile) {
  return I2cTransportVormImplSm::I2cTransportVormImplSmIs(vorm, devId, regFile);
}

I2cTransportVormImplSm::I2cTransportVormImplSm(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId,
                                               Kiv::Ptr<RegFileHelper> const& regFile)
    : Kiv::Entity(vorm ? vorm->name() : Kiv::String()), vorm_(vorm), devId_(devId), regFile_(regFile) {}

I2cTransportVormImplSm::~I2cTransportVormImplSm() { i2cTransportRequestDelAll(); }

void I2cTransportVormImplSm::retireReactors() noexcept { i2cTransportRequestDelAll(); }

Kiv::Ptr<I2cTransportRequest> I2cTransportVormImplSm::newTransportRequest(Kiv::String const& regName) {
  auto const& reg = regFile_->findRegisterByName(regName);
  if (reg.width > reg.accessWidth) [[unlikely]]
    throw TransportError(fmt::format("Unexpected width of register {} (got {} bits, expected at most {} bits)",
                                     regName, reg.width, reg.accessWidth),
                         TransportErrorKind::WidthUnsupported, std::string(regName.view()), TransportOperation::Read);
  // The chip's register offsets are 16 bits wide; a larger byte address is cut, as the bus would.
  return i2cTransportRequestIs(vorm_->newRequest(), devId_, regName, static_cast<U16>(reg.address));
}

void I2cTransportVormImplSm::vormRead(Kiv::String const& regName, RegReadCallback const& readCallback) {
  auto const request = newTransportRequest(regName);
  request->readCallbackIs(readCallback);
  request->issueRequest(Hardware::VormOp::Opcode::read);
}

void I2cTransportVormImplSm::vormWrite(Kiv::String const& regName, uint32_t value,
                                       RegWriteCallback const& writeCallback) {
  auto const request = newTransportRequest(regName);
  request->writeCallbackIs(writeCallback);
  request->dataIs(value);
  request->issueRequest(Hardware::VormOp::Opcode::write);
}

Kiv::Ptr<I2cTransportRequest> I2cTransportVormImplSm::i2cTransportRequest(
    Kiv::Ptr<Hardware::VormRequest const> const& request) const {
  auto const it = entries_.find(request.ptr());
  return it == entries_.end() ? nullptr : it->second->request();
}

bool I2cTransportVormImplSm::i2cTransportRequestHas(Kiv::Ptr<Hardware::VormRequest const> const& request) const {
  return entries_.count(request.ptr()) != 0;
}

Kiv::Ptr<I2cTransportRequest> I2cTransportVormImplSm::i2cTransportRequestIs(
    Kiv::Ptr<Hardware::VormRequest> const& request, U32 devId, Kiv::String const& regName, U16 regAddress) {
  auto entry = std::make_unique<RequestReactor>(
      *this, Kiv::create<I2cTransportRequest>(request, devId, regName, regAddress));
  Kiv::Ptr<I2cTransportRequest> result = entry->request();
  // A replaced entry is destroyed after the map no longer holds it.
  std::unique_ptr<RequestReactor> replaced = std::exchange(entries_[request.ptr()], std::move(entry));
  return result;
}

Kiv::Ptr<I2cTransportRequest> I2cTransportVormImplSm::i2cTransportRequestDel(
    Kiv::Ptr<Hardware::VormRequest const> const& request) {
  auto const it = entries_.find(request.ptr());
  if (it == entries_.end()) return nullptr;
  std::unique_ptr<RequestReactor> const removed = std::move(it->second);
  entries_.erase(it);
  return removed->request();
}

void I2cTransportVormImplSm::i2cTransportRequestDelAll() {
  // Moved out first: destroying an entry must not run while the map is being walked.
  auto removed = std::move(entries_);
  entries_.clear();
  removed.clear();
}

}  // namespace TarnRegFile
