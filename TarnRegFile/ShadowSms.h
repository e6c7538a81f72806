#pragma once
/// @file ShadowSms.h
/// @brief `ShadowFieldsSm`: carries a chip's desired shadow fields to its registers.
///
/// One state machine per chip watches the chip's `ShadowFieldsConfig` (desired
/// physical fields in shared memory). For every changed field it merges the
/// field into a 32-bit image of its register (`regConfig`), and when that image
/// differs from the image last applied (`regStatus`) it writes the whole
/// register through the chip's `TransportMethod`. Every handled field is then
/// recorded in the chip's `ShadowFieldsStatus`, so other processes see what was
/// applied.
///
/// The hardware is never read. Bits of a register that no desired field covers
/// come from the state machine's own image, which starts at 0: a register is
/// always written whole. A register never applied counts as applied with 0.
///
/// Restart: the two images live in this process only. A new state machine
/// rebuilds both from the two shared collections (`handleInitialized`) and
/// writes exactly the registers whose desired image differs from the applied
/// one, so a process killed at any point converges when its successor starts.
/// The status collection never records a field before its register was written.
///
/// Failures: corruption of a shared collection is reported to the collection
/// service's handler and read as 0 (or ends a pass). Any other exception met
/// while handling a field (a register address the transport's map does not
/// name, a status table that is full or detached) propagates to the caller of
/// the mutation that caused it. The field then stays pending: the config image
/// holds it, the applied image and the status collection do not, and the next
/// change of that register or the next state machine applies it.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/platform/Types.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <cstddef>
#include <memory>

namespace TarnRegFile {

class TransportMethod;

/// @brief Merges the low @p len bits of @p value at bit @p start of the little-endian register
/// image @p buffer (4 bytes: byte 0 holds bits 0..7). Bits that would land at bit 32 or above
/// are dropped. More than 8 bytes spanned, or @p len above 63, is a fatal programming error.
TARN_API void bitStreamSet(U8* buffer, U16 start, U8 len, U64 value);

/// @brief The per-chip state machine from desired shadow fields to register writes.
class TARN_API ShadowFieldsSm : public Kiv::Entity {
public:
  /// Register address -> 32-bit image. Flat: a pass over a large chip looks up every register.
  using RegisterImageMap = Kiv::KeyedCollection<U32, U32, boost::hash<U32>, boost::unordered_flat_map>;

  /// @brief Observer of a state machine.
  class TARN_API Notifiee : public Kiv::Notifiee<ShadowFieldsSm> {
  public:
    virtual void onInitialized() {}
    virtual void onRegConfig(U32 /*address*/) {}
    virtual void onRegStatus(U32 /*address*/) {}
  };

  /// @brief Builds a state machine (which applies every pending field at once), then switches
  /// its notifications on. @p transport may be empty only when @p simulate is true.
  static Kiv::Ptr<ShadowFieldsSm> ShadowFieldsSmIs(Kiv::Ptr<ShadowFieldsConfig> const& config,
                                                   Kiv::Ptr<ShadowFieldsStatus> const& status,
                                                   Kiv::Ptr<TransportMethod> const& transport, bool simulate);

  /// @brief "TarnRegFile::ShadowFieldsSm".
  char const* fwkType() const override { return "TarnRegFile::ShadowFieldsSm"; }
  /// @brief Switches the state machine's notifications and its reactions to the config together.
  void hasNotificationActiveIs(bool active) override;

  /// @brief The desired fields this machine reacts to.
  Kiv::Ptr<ShadowFieldsConfig> const& shadowFieldsConfig() const noexcept { return shadowFieldsConfig_; }
  /// @brief The applied fields this machine records.
  Kiv::Ptr<ShadowFieldsStatus> const& shadowFieldsStatus() const noexcept { return shadowFieldsStatus_; }
  /// @brief The transport registers are written through.
  Kiv::Ptr<TransportMethod> const& transport() const noexcept { return transport_; }
  /// @brief The transport's name (empty without a transport): the key in the physical model.
  Kiv::String const& chipName() const noexcept { return name(); }
  /// @brief True when nothing is written to the hardware (all bookkeeping still happens).
  bool simulate() const noexcept { return simulate_; }

  /// @brief True once both images were rebuilt; while false, field changes are only traced.
  bool initialized() const noexcept { return initialized_; }
  /// @brief Sets initialized; notifies only on change.
  void initializedIs(bool initialized);

  // ---- regConfig: register address -> image assembled from the desired fields

  /// @brief The assembled image of @p address (0 when absent).
  U32 regConfig(U32 address) const { return regConfig_.get(address, 0); }
  void regConfigIs(U32 address, U32 value);
  void regConfigDel(U32 address);
  void regConfigDelAll();
  RegisterImageMap const& regConfigEntries() const noexcept { return regConfig_; }

  // ---- regStatus: register address -> image last applied (or deemed applied in simulation)

  /// @brief The applied image of @p address (0 when absent).
  U32 regStatus(U32 address) const { return regStatus_.get(address, 0); }
  void regStatusIs(U32 address, U32 value);
  void regStatusDel(U32 address);
  void regStatusDelAll();
  RegisterImageMap const& regStatusEntries() const noexcept { return regStatus_; }

  // ---- reactions

  /// @brief Rebuilds both images from the two collections, then applies every desired field.
  void handleInitialized();
  /// @brief Applies the desired field of @p key (absent: all its bits 0) and records it.
  void handleShadowField(ShadowFieldKey const& key);
  /// @brief Applies every desired field, in the collection's order.
  void handleShadowField();

protected:
  ShadowFieldsSm(Kiv::Ptr<ShadowFieldsConfig> const& config, Kiv::Ptr<ShadowFieldsStatus> const& status,
                 Kiv::Ptr<TransportMethod> const& transport, bool simulate);
  ~ShadowFieldsSm() override;
  void retireReactors() noexcept override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  class ConfigReactor;

  /// The desired value of @p key; corruption is reported and reads as 0.
  U32 desiredValue(ShadowFieldKey const& key) const;
  /// Applies the desired @p value of @p key (what handleShadowField(key) does once it has read it).
  void applyField(ShadowFieldKey const& key, U32 value);
  /// Merges one field into the image of its register and returns the new image.
  U32 mergeIntoImage(RegisterImageMap const& images, ShadowFieldKey const& key, U32 value) const;
  void releaseAll() noexcept;

  Kiv::Ptr<ShadowFieldsConfig> shadowFieldsConfig_;
  Kiv::Ptr<ShadowFieldsStatus> shadowFieldsStatus_;
  Kiv::Ptr<TransportMethod> transport_;
  std::unique_ptr<ConfigReactor> configReactor_;
  bool simulate_ = false;
  bool initialized_ = false;
  RegisterImageMap regConfig_;
  RegisterImageMap regStatus_;
};

/// @brief Builds a ShadowFieldsSm; see ShadowFieldsSm::ShadowFieldsSmIs.
TARN_API Kiv::Ptr<ShadowFieldsSm> shadowFieldsSmFactory(Kiv::Ptr<ShadowFieldsConfig> const& config,
                                                        Kiv::Ptr<ShadowFieldsStatus> const& status,
                                                        Kiv::Ptr<TransportMethod> const& transport, bool simulate);

}  // namespace TarnRegFile
