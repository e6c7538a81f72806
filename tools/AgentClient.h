#pragma once
/// @file AgentClient.h
/// @brief The commands of `tarnreg` that ask a running `tarnagent` over its control socket:
/// `field write|read`, `reg write|read`, `agent call`, `agent chips` and `shadow diff`.

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace Tarnreg {

/// @brief How an answer is printed.
enum class AgentPrint { Nothing, Field, Register, Raw, Chips, Diff };

/// @brief One request for the agent, and how to print its answer.
struct AgentCommand {
  std::string runtimeDir;  ///< --runtime-dir (empty: the agent's default)
  std::string request;     ///< the request line, without its line end
  AgentPrint print = AgentPrint::Nothing;
  std::vector<std::string> words;  ///< what the command line named (chip, register, field, value)
};

/// @brief The command-line words of the agent commands, as CLI11 fills them.
class AgentCommandLine {
public:
  /// @brief Adds `field`, `reg`, `agent` to @p app and `diff` to @p shadow.
  void addTo(CLI::App& app, CLI::App& shadow);
  /// @brief Whether one of them was given.
  bool given() const;
  /// @brief The request they ask for.
  /// @throws ToolError (usage) for a value that is not a number.
  AgentCommand command() const;

private:
  CLI::App* fieldWrite_ = nullptr;
  CLI::App* fieldRead_ = nullptr;
  CLI::App* regWrite_ = nullptr;
  CLI::App* regRead_ = nullptr;
  CLI::App* call_ = nullptr;
  CLI::App* chips_ = nullptr;
  CLI::App* diff_ = nullptr;
  std::string runtimeDir_;
  std::string chip_, reg_, field_, value_, op_;
  std::vector<std::string> args_;
};

/// @brief Sends @p command to the agent and prints its answer (JSON when @p json).
/// @throws ToolError (failure) when the agent cannot be reached or refuses the request.
void runAgentCommand(AgentCommand const& command, bool json);

}  // namespace Tarnreg
