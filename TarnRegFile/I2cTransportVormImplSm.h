#pragma once
/// @file I2cTransportVormImplSm.h
/// @brief The request bookkeeping of the asynchronous I2C transport: one
/// `I2cTransportRequest` per outstanding access, keyed by the manager's request object,
/// each with a reactor on that object's status that runs the access's callback once.
///
/// Every access gets a request object of its own, so two accesses to one register are
/// independent: nothing is merged or cancelled, and they complete in whatever order the
/// manager finishes them. Completions arrive only inside `Hardware::Vorm::dispatch()`,
/// on the owner's thread; a callback therefore never runs inside the call that issued it.
///
/// An entry lives from the access's issue until its request finishes (status 2 or
/// more), when its callback runs and the entry is removed. Removing an entry some other
/// way (`i2cTransportRequestDel`, `i2cTransportRequestDelAll`, the state machine's end)
/// runs no callback; the manager then finishes the request silently, because nobody
/// holds it any more, and does not write the entry's data word, which is gone.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"
#include "TarnRegFile/platform/Vorm.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"
#include "TarnRegFile/RegisterFileHelper.h"

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace TarnRegFile {

/// @brief One outstanding access: the manager's request object, where it goes, and
/// who to tell when it finishes.
class TARN_API I2cTransportRequest : public Kiv::Entity {
public:
  class Notifiee : public Kiv::Notifiee<I2cTransportRequest> {
  public:
    virtual void onData() {}
  };

  I2cTransportRequest(Kiv::Ptr<Hardware::VormRequest> const& i2cRequest, U32 devId, Kiv::String const& regName,
                      U16 regAddress);
  ~I2cTransportRequest() override;

  /// @brief The manager's request object (also the entry's key).
  Kiv::Ptr<Hardware::VormRequest> const& i2cRequest() const noexcept { return i2cRequest_; }
  /// @brief The peripheral address (only its low 7 bits reach the bus, see issueRequest).
  U32 devId() const noexcept { return devId_; }
  /// @brief The register's name as the caller gave it.
  Kiv::String const& regName() const noexcept { return regName_; }
  /// @brief The register's byte address.
  U16 regAddress() const noexcept { return regAddress_; }

  /// @brief The value to write, or the value read; 0 at first. The manager writes a read's
  /// value here directly (no notification: it is the manager's buffer).
  U32 data() const noexcept { return data_; }
  /// @brief Stores @p data, notifying when it changes.
  void dataIs(U32 data);

  RegReadCallback const& readCallback() const noexcept { return readCallback_; }
  void readCallbackIs(RegReadCallback const& cb) { readCallback_ = cb; }
  RegWriteCallback const& writeCallback() const noexcept { return writeCallback_; }
  void writeCallbackIs(RegWriteCallback const& cb) { writeCallback_ = cb; }

  /// @brief Hands the access to the manager: state 0, one operation (@p opcode, register
  /// offset regAddress >> 2, the low 7 bits of devId, a 2-byte offset, the data word), state 1.
  /// @throws Kiv::RangeException "U7::value < 0 or > 0x7f not allowed" when bit 7 of devId's
  ///         low byte is set (bits 8 and above are not looked at); the manager's errors.
  void issueRequest(Hardware::VormOp::Opcode opcode);

  char const* fwkType() const override { return "TarnRegFile::I2cTransportRequest"; }

private:
  Kiv::Ptr<Hardware::VormRequest> i2cRequest_;
  U32 devId_;
  Kiv::String regName_;
  U16 regAddress_;
  U32 data_ = 0;
  RegReadCallback readCallback_;
  RegWriteCallback writeCallback_;
};

/// @brief The outstanding accesses of one asynchronous I2C transport.
class TARN_API I2cTransportVormImplSm : public Kiv::Entity {
public:
  /// @brief A state machine issuing on @p vorm to @p devId, resolving names through @p regFile.
  static Kiv::Ptr<I2cTransportVormImplSm> I2cTransportVormImplSmIs(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId,
                                                                   Kiv::Ptr<RegFileHelper> const& regFile);

  I2cTransportVormImplSm(Kiv::Ptr<Hardware::Vorm> const& vorm, U32 devId, Kiv::Ptr<RegFileHelper> const& regFile);
  /// @brief Removes every entry; no callback runs.
  ~I2cTransportVormImplSm() override;

  Kiv::Ptr<Hardware::Vorm> const& vorm() const noexcept { return vorm_; }
  U32 devId() const noexcept { return devId_; }
  Kiv::Ptr<RegFileHelper> const& regFile() const noexcept { return regFile_; }

  /// @brief Resolves @p regName, checks its width and adds an entry for a fresh request object.
  /// @throws the helper's LookupError; TransportError (WidthUnsupported) "Unexpected width of
  ///         register <name> (got <width> bits, expected at most <accessWidth> bits)". Either
  ///         way no request object exists.
  Kiv::Ptr<I2cTransportRequest> newTransportRequest(Kiv::String const& regName);
  /// @brief Issues a read of @p regName; @p readCallback runs when it finishes.
  void vormRead(Kiv::String const& regName, RegReadCallback const& readCallback);
  /// @brief Issues a write of @p value to @p regName; @p writeCallback runs when it finishes.
  void vormWrite(Kiv::String const& regName, uint32_t value, RegWriteCallback const& writeCallback);

  /// @brief The entry of @p request, or null.
  Kiv::Ptr<I2cTransportRequest> i2cTransportRequest(Kiv::Ptr<Hardware::VormRequest const> const& request) const;
  bool i2cTransportRequestHas(Kiv::Ptr<Hardware::VormRequest const> const& request) const;
  /// @brief Outstanding accesses.
  size_t i2cTransportRequestCount() const noexcept { return entries_.size(); }
  /// @brief Adds the entry of @p request (register address cut to 16 bits by the caller)
  /// with its reactor on the request's status; returns it. An entry already there is replaced.
  Kiv::Ptr<I2cTransportRequest> i2cTransportRequestIs(Kiv::Ptr<Hardware::VormRequest> const& request, U32 devId,
                                                      Kiv::String const& regName, U16 regAddress);
  /// @brief Removes the entry of @p request and its reactor without running a callback;
  /// returns it (null when there was none).
  Kiv::Ptr<I2cTransportRequest> i2cTransportRequestDel(Kiv::Ptr<Hardware::VormRequest const> const& request);
  /// @brief Removes every entry without running a callback.
  void i2cTransportRequestDelAll();

  char const* fwkType() const override { return "TarnRegFile::I2cTransportVormImplSm"; }

private:
  class RequestReactor;
  void retireReactors() noexcept override;

  Kiv::Ptr<Hardware::Vorm> vorm_;
  U32 devId_;
  Kiv::Ptr<RegFileHelper> regFile_;
  std::unordered_map<Hardware::VormRequest const*, std::unique_ptr<RequestReactor>> entries_;
};

/// @brief Free factory of I2cTransportVormImplSm.
TARN_API Kiv::Ptr<I2cTransportVormImplSm> i2cTransportVormImplSmFactory(Kiv::Ptr<Hardware::Vorm> const& vorm,
                                                                        U32 devId,
                                                                        Kiv::Ptr<RegFileHelper> const& regFile);

}  // namespace TarnRegFile
