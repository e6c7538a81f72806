#include "TarnRegFile/platform/Trace.h"

#include <fmt/args.h>
#include <fnmatch.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

namespace Kiv {
namespace {

struct Rule {
  std::string pattern;
  uint32_t mask;
};

// Fixed-size slots: recording a line never allocates once the ring exists.
constexpr size_t kRingSlots = Trace::ringCapacity;
// A line as read back (unit, level, function and text, after the time stamp) is cut
// to this many bytes.
constexpr size_t kLineBytes = 239;
// Copied string arguments: a few bytes more than a line can show, so that cutting
// a long string at a character boundary never shortens what the line shows.
constexpr size_t kStringBytes = kLineBytes + 9;
constexpr size_t kMaxArgs = TraceHandle::kMaxRecordedArgs;

// One argument as recorded: a raw value, or where its bytes lie in RingSlot::bytes.
union RingValue {
  bool b;
  char c;
  int64_t i;
  uint64_t u;
  float f;
  double d;
  void const* p;
  struct {
    uint16_t offset;
    uint16_t size;
  } s;
};

// A recorded line. With `unit` set it is a format and its arguments, formatted when
// the ring is read; without, `bytes` hold the finished line (a line that was
// formatted anyway for text output or a capture, or that outlived its unit).
struct RingSlot {
  uint64_t sequence = 0;
  timespec when{};  // formatted only when the ring is read: recording stays cheap
  char const* unit = nullptr;
  char const* function = nullptr;
  char const* format = nullptr;
  uint32_t formatSize = 0;
  uint16_t bytesUsed = 0;
  uint8_t level = 0;
  detail::TraceStyle style{};
  uint8_t argCount = 0;
  detail::TraceArgKind kinds[kMaxArgs] = {};
  RingValue values[kMaxArgs] = {};
  char bytes[kStringBytes] = {};
};

std::string lineOf(RingSlot const& slot);

// Stands for a null C string argument: formatting it fails as formatting the pointer would.
struct NullText {};

}  // namespace
}  // namespace Kiv

template <>
struct fmt::formatter<Kiv::NullText> {
  constexpr auto parse(format_parse_context& ctx) {
    auto it = ctx.begin();
    while (it != ctx.end() && *it != '}') ++it;
    return it;
  }
  template <class Ctx>
  auto format(Kiv::NullText, Ctx&) const -> decltype(std::declval<Ctx&>().out()) {
    throw format_error("string pointer is null");
  }
};

namespace Kiv {
namespace {

struct Registry {
  std::mutex mutex;  // guards configuration changes, never taken on the line path when disabled
  std::vector<TraceHandle*> handles;
  std::vector<Rule> textRules;
  std::vector<Rule> ringRules{{"*", Trace::upTo(2)}};
  std::vector<TraceCapture*> captures;
  std::FILE* textOutput = stderr;
  std::array<RingSlot, kRingSlots> ring;
  std::atomic<uint64_t> ringNext{0};
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: handles in other units outlive static teardown order
  return *r;
}

bool globMatch(std::string const& pattern, char const* unit) {
  return fnmatch(pattern.c_str(), unit, 0) == 0;
}

uint32_t ruleMask(std::vector<Rule> const& rules, char const* unit) {
  uint32_t mask = 0;
  bool matched = false;
  for (auto const& rule : rules) {  // the last matching rule wins
    if (globMatch(rule.pattern, unit)) {
      mask = rule.mask;
      matched = true;
    }
  }
  return matched ? mask : 0;
}

void refreshAll(Registry& r) {
  for (auto* h : r.handles) h->refresh();
}

// "HH:MM:SS.uuuuuu" into a caller buffer: no allocation on the line path.
struct Stamp {
  char text[24];
  explicit Stamp(timespec const& when) {
    std::tm tm{};
    time_t secs = when.tv_sec;
    localtime_r(&secs, &tm);
    auto end = fmt::format_to_n(text, sizeof text - 1, "{:02}:{:02}:{:02}.{:06}", tm.tm_hour, tm.tm_min,
                                tm.tm_sec, static_cast<long>(when.tv_nsec / 1000));
    *end.out = '\0';
  }
};

timespec now() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME_COARSE, &ts);  // vDSO, no system call; tick resolution is enough for a ring of recent lines
  return ts;
}

// printf-style formats are literals: their "{}" translation is computed once per
// format and remembered by address in a small per-thread cache.
std::string const& translatedFormat(char const* format, std::string (*translate)(char const*)) {
  struct Entry {
    char const* format = nullptr;
    std::string translated;
  };
  thread_local std::array<Entry, 64> cache;
  auto& e = cache[(reinterpret_cast<uintptr_t>(format) >> 3) % cache.size()];
  if (e.format != format) {
    e.translated = translate(format);
    e.format = format;
  }
  return e.translated;
}

}  // namespace

TraceHandle::TraceHandle(char const* unit) : unit_(unit) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.handles.push_back(this);
  refresh();
}

TraceHandle::~TraceHandle() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.handles.erase(std::remove(r.handles.begin(), r.handles.end(), this), r.handles.end());
  // This unit's records point at its literals (unit name, formats, function names),
  // which go away with it when its library is unloaded: finish them as text now.
  for (auto& slot : r.ring) {
    if (slot.sequence == 0 || slot.unit != unit_) continue;
    try {
      std::string const line = lineOf(slot);
      std::memcpy(slot.bytes, line.data(), line.size());
      slot.bytesUsed = static_cast<uint16_t>(line.size());
    } catch (std::bad_alloc const&) {
      slot.bytesUsed = 0;  // out of memory while the process ends: an empty line rather than a dangling one
    }
    slot.unit = nullptr;
  }
}

void TraceHandle::refresh() {
  auto& r = registry();
  ringMask_ = ruleMask(r.ringRules, unit_);
  textMask_ = ruleMask(r.textRules, unit_);
  uint32_t captureMask = 0;
  for (auto* c : r.captures)
    if (c->matches(unit_)) captureMask |= c->levelMask();
  ringOnly_.store(ringMask_ & ~textMask_ & ~captureMask, std::memory_order_relaxed);
  mask_.store(ringMask_ | textMask_ | captureMask, std::memory_order_relaxed);
}

void TraceHandle::vline(unsigned level, char const* function, fmt::string_view format, fmt::format_args args) {
  fmt::memory_buffer text;  // inline storage: short lines never allocate
  try {
    fmt::vformat_to(fmt::appender(text), format, args);
  } catch (fmt::format_error const& e) {
    text.clear();
    fmt::format_to(fmt::appender(text), "<bad trace format: {}>", e.what());
  }
  emit(level, function, std::string_view(text.data(), text.size()));
}

void TraceHandle::record(unsigned level, char const* function, detail::TraceStyle style, char const* format,
                         size_t formatSize, detail::TraceArg const* args, size_t count) noexcept {
  auto& r = registry();
  uint64_t const seq = r.ringNext.fetch_add(1, std::memory_order_relaxed);
  RingSlot& slot = r.ring[seq % kRingSlots];
  slot.sequence = seq + 1;
  slot.when = now();
  slot.unit = unit_;
  slot.function = function;
  slot.format = format;
  slot.formatSize = static_cast<uint32_t>(formatSize);
  slot.level = static_cast<uint8_t>(level);
  slot.style = style;
  slot.argCount = static_cast<uint8_t>(count);
  size_t used = 0;
  for (size_t i = 0; i < count; ++i) {
    detail::TraceArg const& arg = args[i];
    slot.kinds[i] = arg.kind;
    RingValue& value = slot.values[i];
    if (arg.kind != detail::TraceArgKind::String) {
      static_assert(sizeof(value.u) == sizeof(RingValue));
      std::memcpy(&value, &arg.u, sizeof value);  // whichever member the kind names
      continue;
    }
    size_t n = std::min(arg.s.size, kStringBytes - used);
    if (n < arg.s.size) {
      // Cut before a UTF-8 continuation byte, never inside a character.
      while (n > 0 && (static_cast<unsigned char>(arg.s.data[n]) & 0xC0u) == 0x80u) --n;
    }
    std::memcpy(slot.bytes + used, arg.s.data, n);
    value.s = {static_cast<uint16_t>(used), static_cast<uint16_t>(n)};
    used += n;
  }
  slot.bytesUsed = static_cast<uint16_t>(used);
}

namespace {

std::string translatePrintf(char const* format) {
  // %s accepts any argument (the runtime's types print their text form), so
  // callers need not care about the argument's type.
  std::string translated;
  int index = 0;
  for (char const* p = format; *p; ++p) {
    char c = *p;
    if (c == '{' || c == '}') {
      translated += c;
      translated += c;
      continue;
    }
    if (c != '%') {
      translated += c;
      continue;
    }
    ++p;
    if (*p == '%') {
      translated += '%';
      continue;
    }
    bool alternate = false;
    if (*p == '#') {
      alternate = true;
      ++p;
    }
    while (*p == 'l' || *p == 'h' || *p == 'z') ++p;  // length modifiers carry no meaning here
    if (!*p) break;
    switch (*p) {
      case 'x':
        translated += fmt::format(fmt::runtime(alternate ? "{{{}:#x}}" : "{{{}:x}}"), index++);
        break;
      case 'X':
        translated += fmt::format(fmt::runtime(alternate ? "{{{}:#X}}" : "{{{}:X}}"), index++);
        break;
      default:  // s d i u c p
        translated += fmt::format("{{{}}}", index++);
        break;
    }
  }
  return translated;
}

// The line a ring record stands for, as text output would print it after the time
// stamp, cut to kLineBytes. A record read while another thread rewrites its slot may
// mix two lines, but every index and size is checked: it never reads out of bounds.
std::string lineOf(RingSlot const& slot) {
  if (!slot.unit) return std::string(slot.bytes, std::min<size_t>(slot.bytesUsed, kLineBytes));
  fmt::memory_buffer line;
  fmt::format_to(fmt::appender(line), "{} L{} ", slot.unit, slot.level);
  if (slot.function) fmt::format_to(fmt::appender(line), "{}: ", slot.function);
  size_t const prefix = line.size();
  try {
    fmt::dynamic_format_arg_store<fmt::format_context> args;
    bool intact = slot.format && slot.argCount <= kMaxArgs;
    for (size_t i = 0; intact && i < slot.argCount; ++i) {
      RingValue const& v = slot.values[i];
      switch (slot.kinds[i]) {
        case detail::TraceArgKind::Bool: args.push_back(v.b); break;
        case detail::TraceArgKind::Char: args.push_back(v.c); break;
        case detail::TraceArgKind::Signed: args.push_back(static_cast<long long>(v.i)); break;
        case detail::TraceArgKind::Unsigned: args.push_back(static_cast<unsigned long long>(v.u)); break;
        case detail::TraceArgKind::Float: args.push_back(v.f); break;
        case detail::TraceArgKind::Double: args.push_back(v.d); break;
        case detail::TraceArgKind::Pointer: args.push_back(v.p); break;
        case detail::TraceArgKind::NullString: args.push_back(NullText{}); break;
        case detail::TraceArgKind::String:
          intact = size_t{v.s.offset} + v.s.size <= kStringBytes;
          if (intact) args.push_back(std::string_view(slot.bytes + v.s.offset, v.s.size));
          break;
        default: intact = false; break;
      }
    }
    if (!intact) throw fmt::format_error("damaged ring record");
    if (slot.style == detail::TraceStyle::Printf) {
      fmt::vformat_to(fmt::appender(line), translatePrintf(slot.format), args);
    } else {
      // strnlen: the format is a literal, so its terminator bounds it even in a mixed record.
      fmt::vformat_to(fmt::appender(line), fmt::string_view(slot.format, strnlen(slot.format, slot.formatSize)), args);
    }
  } catch (fmt::format_error const& e) {
    line.resize(prefix);
    fmt::format_to(fmt::appender(line), "<bad trace format: {}>", e.what());
  }
  return std::string(line.data(), std::min(line.size(), kLineBytes));
}

}  // namespace

void TraceHandle::vprintf(unsigned level, char const* format, fmt::format_args args) {
  vline(level, nullptr, translatedFormat(format, &translatePrintf), args);
}

void TraceHandle::emit(unsigned level, char const* function, std::string_view text) {
  auto& r = registry();
  std::string_view const fn = function ? std::string_view(function) : std::string_view();
  timespec const when = now();
  if ((ringMask_ >> level) & 1u) {
    uint64_t seq = r.ringNext.fetch_add(1, std::memory_order_relaxed);
    RingSlot& slot = r.ring[seq % kRingSlots];
    slot.sequence = seq + 1;
    slot.when = when;
    slot.unit = nullptr;
    auto end = fmt::format_to_n(slot.bytes, kLineBytes, "{} L{} {}{}{}", unit_, level, fn, fn.empty() ? "" : ": ", text);
    slot.bytesUsed = static_cast<uint16_t>(end.out - slot.bytes);
  }
  if ((textMask_ >> level) & 1u) {
    std::lock_guard lock(r.mutex);
    fmt::print(r.textOutput, "{} {} L{} {}{}{}\n", Stamp(when).text, unit_, level, fn, fn.empty() ? "" : ": ", text);
    std::fflush(r.textOutput);
  }
  if (!r.captures.empty()) {
    std::lock_guard lock(r.mutex);
    for (auto* c : r.captures)
      if (c->matches(unit_) && ((c->levelMask() >> level) & 1u))
        c->add(TraceRecord{unit_, level, std::string(fn), std::string(text)});
  }
}

namespace Trace {

void textLevelsIs(std::string const& pattern, uint32_t levelMask) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.textRules.push_back({pattern, levelMask});
  refreshAll(r);
}

void ringLevelsIs(std::string const& pattern, uint32_t levelMask) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.ringRules.push_back({pattern, levelMask});
  refreshAll(r);
}

void textOutputIs(std::FILE* out) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.textOutput = out ? out : stderr;
}

std::vector<std::string> ringLines() {
  auto& r = registry();
  std::vector<std::string> lines;
  uint64_t next = r.ringNext.load(std::memory_order_relaxed);
  uint64_t first = next > kRingSlots ? next - kRingSlots : 0;
  for (uint64_t seq = first; seq < next; ++seq) {
    RingSlot const slot = r.ring[seq % kRingSlots];  // a copy: the writer may reuse the slot meanwhile
    if (slot.sequence == seq + 1) lines.push_back(fmt::format("{} {}", Stamp(slot.when).text, lineOf(slot)));
  }
  return lines;
}

void ringDump(std::FILE* out) {
  for (auto const& line : ringLines()) fmt::print(out, "{}\n", line);
  std::fflush(out);
}

void ringClear() {
  auto& r = registry();
  for (auto& slot : r.ring) slot.sequence = 0;
}

std::vector<std::string> units() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  std::vector<std::string> names;
  for (auto* h : r.handles) names.emplace_back(h->unit());
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

}  // namespace Trace

TraceCapture::TraceCapture(std::string pattern, uint32_t levelMask)
    : pattern_(std::move(pattern)), levelMask_(levelMask) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.captures.push_back(this);
  refreshAll(r);
}

TraceCapture::~TraceCapture() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.captures.erase(std::remove(r.captures.begin(), r.captures.end(), this), r.captures.end());
  refreshAll(r);
}

bool TraceCapture::matches(char const* unit) const { return globMatch(pattern_, unit); }

bool TraceCapture::contains(std::string_view text, int level) const {
  for (auto const& rec : records_)
    if ((level < 0 || rec.level == static_cast<unsigned>(level)) && rec.text.find(text) != std::string::npos)
      return true;
  return false;
}

size_t TraceCapture::count(std::string_view text) const {
  size_t n = 0;
  for (auto const& rec : records_)
    if (rec.text.find(text) != std::string::npos) ++n;
  return n;
}

}  // namespace Kiv
