#pragma once
/// @file LogicalSms.h
/// @brief `LogicalWriteSm`: turns changes of a chip's logical fields into desired shadow fields.
///
/// One state machine per chip reacts to the chip's `logicalField` collection and
/// nothing else. For a changed field it finds the physical field the chip's
/// translation maps it to, and writes the field's value under that physical
/// field's shadow key into the chip's `ShadowFieldsConfig`, unless the
/// configuration already holds that value (a redundant write would wake the
/// shadow state machine and every reader for nothing).
///
/// A chip that is not ready is ignored, and becoming ready does not trigger a
/// pass: a change made meanwhile reaches the configuration when the field
/// changes again or when a new state machine (or `handleLogicalField()`) runs a
/// full pass. Deleting a logical field from a ready chip under a running state
/// machine is a fatal programming error (the deletion is handled as a default
/// field, which has no translation).
///
/// Failures: corruption of the configuration while reading it is reported to
/// the collection service's handler. Any other exception (a full or detached
/// configuration, or one coming from the shadow state machine's reaction)
/// propagates to the caller of the chip's mutation; the chip keeps the new
/// value and a later full pass pushes it.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/LogicalTypes.h"

#include <memory>

namespace TarnRegFile {

/// @brief The per-chip state machine from logical fields to desired shadow fields.
class TARN_API LogicalWriteSm : public Kiv::Entity {
public:
  /// @brief Creates a state machine on @p chip (named after it) and runs a full pass.
  static Kiv::Ptr<LogicalWriteSm> LogicalWriteSmIs(Kiv::Ptr<LogicalChip> const& chip);

  /// @brief "TarnRegFile::LogicalWriteSm".
  char const* fwkType() const override { return "TarnRegFile::LogicalWriteSm"; }
  /// @brief Switches the state machine's notifications and its reactions to the chip together.
  void hasNotificationActiveIs(bool active) override;

  /// @brief The chip this machine serves (empty when created without one).
  Kiv::Ptr<LogicalChip> const& logicalChip() const noexcept { return chip_; }
  /// @brief The chip's name: the key in the logical model.
  Kiv::String const& chipName() const noexcept { return name(); }

  /// @brief Handles every logical field of the chip, in the collection's order.
  void handleLogicalField();
  /// @brief Handles the field @p name; a field no longer present is handled as a default field.
  void handleLogicalField(LogicalFieldName const& name);
  /// @brief Writes @p field's value into the configuration under its physical field's key, if it differs.
  void maybeWriteField(LogicalField const& field);

protected:
  explicit LogicalWriteSm(Kiv::Ptr<LogicalChip> const& chip);
  ~LogicalWriteSm() override;
  void retireReactors() noexcept override;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);

private:
  class ChipReactor;

  /// maybeWriteField for the field of id @p id (noField when the chip has no such name);
  /// @p name is that field's name when the caller has it.
  void writeField(LogicalChip::FieldId id, U32 value, LogicalFieldName const* name);

  Kiv::Ptr<LogicalChip> chip_;
  std::unique_ptr<ChipReactor> chipReactor_;
};

/// @brief Creates a LogicalWriteSm on @p chip; see LogicalWriteSm::LogicalWriteSmIs.
TARN_API Kiv::Ptr<LogicalWriteSm> logicalWriteSmFactory(Kiv::Ptr<LogicalChip> const& chip);

}  // namespace TarnRegFile
