#pragma once
/// @file ControlProtocol.h
/// @brief The requests `tarnagent` takes on its control socket, and their parser.
///
/// One request per line, one answer line per request. Words are separated by spaces or tabs
/// and are printable ASCII:
///
///     ping                     -> ok pong
///     chips                    -> ok [{"name": "chip0", "ready": true, ...}, ...]
///     call CHIP OP ARG...      -> ok RESULT           (RESULT empty for writes)
///     diff CHIP                -> ok {"chip": ..., "fields": [...]}
///
/// An answer is "ok" with the result after one space, or "error" and the reason. The parser
/// is a pure function of the line: it neither throws nor looks at any chip, so a fuzzer and the
/// server share it; what the line names is checked against the chip by the agent.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TarnAgent {

/// @brief The longest request line taken, line end excluded.
constexpr size_t kMaxRequestBytes = 4096;
/// @brief The most words a request may have (a verb, a chip, an operation and its arguments).
constexpr size_t kMaxRequestWords = 16;

enum class RequestKind { Ping, Chips, Call, Diff };

struct Request {
  RequestKind kind = RequestKind::Ping;
  std::string chip;               ///< call, diff
  std::string op;                 ///< call
  std::vector<std::string> args;  ///< call
};

/// @brief A parsed request, or the reason the line is not one.
struct ParsedRequest {
  std::optional<Request> request;
  std::string error;
};

/// @brief Parses one request line (without its line end; a trailing '\r' is taken off).
ParsedRequest parseRequest(std::string_view line);

/// @brief Where the agent's control socket is unless told otherwise: $RUNTIME_DIRECTORY (set by
/// systemd), else /run/tarnagent for root, else $XDG_RUNTIME_DIR/tarnagent, else
/// /tmp/tarnagent-UID. The agent and its clients share this rule.
std::string defaultRuntimeDir();
/// @brief The socket's path in @p runtimeDir: "<runtimeDir>/control.sock".
std::string socketPathIn(std::string const& runtimeDir);

/// @brief "ok" or "ok TEXT", with a line end.
std::string okAnswer(std::string_view text);
/// @brief "error TEXT", with a line end; line ends and other control characters inside
/// @p text become spaces, so the answer is always one line.
std::string errorAnswer(std::string_view text);

/// @brief Splits an answer line (without its line end) into success and text.
/// @return nothing when @p line is not an answer.
std::optional<std::pair<bool, std::string>> parseAnswer(std::string_view line);

}  // namespace TarnAgent
