#include "AgentClient.h"

#include "NumberParser.h"
#include "ToolError.h"

#include "ControlProtocol.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace Tarnreg {

namespace {

// The agent answers at once; a silent one is stuck, and a script must not hang with it.
constexpr int kAnswerTimeoutSeconds = 10;

class Socket {
public:
  explicit Socket(std::string const& path) : path_(path) {
    if (path.size() >= sizeof(sockaddr_un::sun_path))
      throw ToolError::usage(fmt::format("socket path {} is too long", path));
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) throw ToolError::failure(fmt::format("socket: {}", std::strerror(errno)));
    timeval timeout{kAnswerTimeoutSeconds, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
      throw ToolError::failure(fmt::format("cannot reach tarnagent at {}: {} (is it running? --runtime-dir DIR)", path,
                                           std::strerror(errno)));
  }
  ~Socket() { ::close(fd_); }

  std::string ask(std::string const& request) {
    std::string const line = request + "\n";
    for (size_t sent = 0; sent < line.size();) {
      ssize_t const n = ::send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw ToolError::failure(fmt::format("sending to tarnagent at {}: {}", path_, std::strerror(errno)));
      sent += static_cast<size_t>(n);
    }
    std::string answer;
    char buffer[65536];
    while (answer.empty() || answer.back() != '\n') {
      ssize_t const n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        throw ToolError::failure(fmt::format("tarnagent at {} did not answer within {} s", path_, kAnswerTimeoutSeconds));
      if (n < 0) throw ToolError::failure(fmt::format("reading from tarnagent at {}: {}", path_, std::strerror(errno)));
      if (n == 0) throw ToolError::failure(fmt::format("tarnagent at {} closed the connection without an answer", path_));
      answer.append(buffer, static_cast<size_t>(n));
    }
    answer.pop_back();
    return answer;
  }

private:
  std::string path_;
  int fd_ = -1;
};

void checkNumber(std::string const& text, char const* what) {
  if (!text.empty() && parseNumber(text, 0xFFFFFFFFu)) return;
  // 64-bit register values: digits or 0x-hex the agent checks against the register.
  bool ok = !text.empty();
  bool const hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  for (size_t i = hex ? 2 : 0; ok && i < text.size(); ++i)
    ok = hex ? std::isxdigit(static_cast<unsigned char>(text[i])) != 0 : std::isdigit(static_cast<unsigned char>(text[i])) != 0;
  if (!ok)
    throw ToolError::usage(fmt::format("{} '{}' is not a number: give decimal (such as 42) or 0x-hex (such as 0x2a)",
                                       what, text));
}

std::string hex(unsigned long long value, int digits) { return fmt::format("0x{:0{}x}", value, digits); }

void printDiff(std::string const& answer, bool json) {
  if (json) {
    fmt::print("{}\n", answer);
    return;
  }
  auto const d = nlohmann::json::parse(answer);
  auto const& fields = d.at("fields");
  size_t lw = 7, pw = 8;
  for (auto const& f : fields) {
    lw = std::max(lw, f.at("logical").get<std::string>().size());
    pw = std::max(pw, f.at("register").get<std::string>().size() + 1 + f.at("field").get<std::string>().size());
  }
  fmt::print("chip {}: {} of {} field(s) pending\n", d.at("chip").get<std::string>(), d.at("pending").get<size_t>(),
             fields.size());
  fmt::print("{:<{}}  {:<{}}  {:<10}  {:>5}  {:>4}  {:<10}  {:<10}  pending\n", "logical", lw, "physical", pw, "address",
             "start", "size", "desired", "applied");
  for (auto const& f : fields) {
    std::string const physical = f.at("register").get<std::string>() + "." + f.at("field").get<std::string>();
    std::string const applied = f.at("applied").is_null() ? "-" : hex(f.at("applied").get<unsigned>(), 8);
    fmt::print("{:<{}}  {:<{}}  {}  {:>5}  {:>4}  {}  {:<10}  {}\n", f.at("logical").get<std::string>(), lw, physical, pw,
               hex(f.at("address").get<unsigned>(), 8), f.at("start").get<unsigned>(), f.at("size").get<unsigned>(),
               hex(f.at("desired").get<unsigned>(), 8), applied, f.at("pending").get<bool>() ? "*" : "");
  }
}

void printChips(std::string const& answer, bool json) {
  if (json) {
    fmt::print("{}\n", answer);
    return;
  }
  auto const chips = nlohmann::json::parse(answer);
  size_t w = 4;
  for (auto const& c : chips) w = std::max(w, c.at("name").get<std::string>().size());
  fmt::print("{:<{}}  {:<9}  {:<5}  {:>8}  {:>8}\n", "chip", w, "transport", "ready", "physical", "logical");
  for (auto const& c : chips)
    fmt::print("{:<{}}  {:<9}  {:<5}  {:>8}  {:>8}\n", c.at("name").get<std::string>(), w,
               c.at("transport").get<std::string>(), c.at("ready").get<bool>() ? "yes" : "no",
               c.at("physicalFields").get<size_t>(), c.at("logicalFields").get<size_t>());
}

}  // namespace

void AgentCommandLine::addTo(CLI::App& app, CLI::App& shadow) {
  auto addRuntimeDir = [this](CLI::App* sub) { sub->add_option("--runtime-dir", runtimeDir_); };
  auto* field = app.add_subcommand("field")->require_subcommand(1);
  fieldWrite_ = field->add_subcommand("write");
  fieldRead_ = field->add_subcommand("read");
  for (auto* sub : {fieldWrite_, fieldRead_}) {
    sub->add_option("CHIP", chip_)->required();
    sub->add_option("REG", reg_)->required();
    sub->add_option("FIELD", field_)->required();
    addRuntimeDir(sub);
  }
  fieldWrite_->add_option("VALUE", value_)->required();
  auto* reg = app.add_subcommand("reg")->require_subcommand(1);
  regWrite_ = reg->add_subcommand("write");
  regRead_ = reg->add_subcommand("read");
  for (auto* sub : {regWrite_, regRead_}) {
    sub->add_option("CHIP", chip_)->required();
    sub->add_option("REG", reg_)->required();
    addRuntimeDir(sub);
  }
  regWrite_->add_option("VALUE", value_)->required();
  auto* agent = app.add_subcommand("agent")->require_subcommand(1);
  call_ = agent->add_subcommand("call");
  call_->add_option("CHIP", chip_)->required();
  call_->add_option("OP", op_)->required();
  call_->add_option("ARGS", args_);
  chips_ = agent->add_subcommand("chips");
  diff_ = shadow.add_subcommand("diff");
  diff_->add_option("CHIP", chip_)->required();
  for (auto* sub : {call_, chips_, diff_}) addRuntimeDir(sub);
}

bool AgentCommandLine::given() const {
  for (auto* sub : {fieldWrite_, fieldRead_, regWrite_, regRead_, call_, chips_, diff_})
    if (sub && sub->parsed()) return true;
  return false;
}

AgentCommand AgentCommandLine::command() const {
  AgentCommand c;
  c.runtimeDir = runtimeDir_;
  if (fieldWrite_->parsed()) {
    checkNumber(value_, "VALUE");
    c.request = fmt::format("call {} fieldWrite {} {} {}", chip_, reg_, field_, value_);
    c.words = {chip_, reg_, field_, value_};
  } else if (fieldRead_->parsed()) {
    c.request = fmt::format("call {} fieldGetLastWritten {} {}", chip_, reg_, field_);
    c.print = AgentPrint::Field;
    c.words = {chip_, reg_, field_};
  } else if (regWrite_->parsed()) {
    checkNumber(value_, "VALUE");
    c.request = fmt::format("call {} regWrite {} {}", chip_, reg_, value_);
    c.words = {chip_, reg_, value_};
  } else if (regRead_->parsed()) {
    c.request = fmt::format("call {} regGetLastWritten {}", chip_, reg_);
    c.print = AgentPrint::Register;
    c.words = {chip_, reg_};
  } else if (call_->parsed()) {
    c.request = fmt::format("call {} {}", chip_, op_);
    for (auto const& a : args_) c.request += " " + a;
    c.print = AgentPrint::Raw;
  } else if (chips_->parsed()) {
    c.request = "chips";
    c.print = AgentPrint::Chips;
  } else {
    c.request = fmt::format("diff {}", chip_);
    c.print = AgentPrint::Diff;
  }
  for (char ch : c.request)
    if (static_cast<unsigned char>(ch) < ' ' || ch == 0x7f)
      throw ToolError::usage("names and values must not hold control characters or line ends");
  return c;
}

void runAgentCommand(AgentCommand const& command, bool json) {
  std::string const dir = command.runtimeDir.empty() ? TarnAgent::defaultRuntimeDir() : command.runtimeDir;
  Socket socket(TarnAgent::socketPathIn(dir));
  auto const answer = TarnAgent::parseAnswer(socket.ask(command.request));
  if (!answer) throw ToolError::failure("tarnagent answered something that is not an answer");
  if (!answer->first) throw ToolError::failure(answer->second);
  std::string const& text = answer->second;
  auto const& w = command.words;
  switch (command.print) {
    case AgentPrint::Nothing:
      if (json && w.size() == 4)
        fmt::print("{}\n", nlohmann::json{{"chip", w[0]}, {"register", w[1]}, {"field", w[2]}, {"value", std::stoull(w[3], nullptr, 0)}}.dump());
      else if (json)
        fmt::print("{}\n", nlohmann::json{{"chip", w[0]}, {"register", w[1]}, {"value", std::stoull(w[2], nullptr, 0)}}.dump());
      return;
    case AgentPrint::Field:
      if (json)
        fmt::print("{}\n", nlohmann::json{{"chip", w[0]}, {"register", w[1]}, {"field", w[2]}, {"value", std::stoull(text)}}.dump());
      else
        fmt::print("{}\n", hex(std::stoull(text), 8));
      return;
    case AgentPrint::Register:
      if (json)
        fmt::print("{}\n", nlohmann::json{{"chip", w[0]}, {"register", w[1]}, {"value", std::stoull(text)}}.dump());
      else
        fmt::print("{}\n", hex(std::stoull(text), 16));
      return;
    case AgentPrint::Raw:
      if (json)
        fmt::print("{}\n", nlohmann::json{{"result", text}}.dump());
      else if (!text.empty())
        fmt::print("{}\n", text);
      return;
    case AgentPrint::Chips: return printChips(text, json);
    case AgentPrint::Diff: return printDiff(text, json);
  }
}

}  // namespace Tarnreg
