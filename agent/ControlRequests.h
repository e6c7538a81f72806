#pragma once
/// @file ControlRequests.h
/// @brief Answers the control socket's requests from the agent's chips.
///
/// A request names chips, registers, fields and values that a person or a script typed. The
/// chip's own checks are fatal assertions that end the process, so every name, argument count
/// and bound is checked here first, against the chip itself, and a bad request is answered
/// with one error line. Only the operations that read or write a ready chip's logical values
/// are offered; those that would change its population are refused by name.

#include "ControlProtocol.h"
#include "SystemDescription.h"

#include "TarnRegFile/platform/KivPtr.h"

#include "TarnRegFile/SystemModels.h"

#include <string>

namespace TarnAgent {

class RequestHandler {
public:
  RequestHandler(SystemDescription const& description, Kiv::Ptr<TarnRegFile::LogicalModel> const& logical);

  /// @brief The answer line (with its line end) to the request line @p line. Never throws
  /// for anything a line may hold.
  std::string answer(std::string_view line);
  /// @brief The answer line to a parsed request.
  std::string answer(Request const& request);

private:
  std::string call(Request const& request);
  std::string chips() const;
  std::string diff(std::string const& chip) const;
  Kiv::Ptr<TarnRegFile::LogicalChip> readyChip(std::string const& name, std::string& error) const;

  SystemDescription const& description_;
  Kiv::Ptr<TarnRegFile::LogicalModel> logical_;
};

}  // namespace TarnAgent
