#include "Trace.h"

#include <fnmatch.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <mutex>

namespace Kiv {
namespace {

struct Rule {
  std::string pattern;
  uint32_t mask;
};

// Fixed-size slots: recording a line never allocates once the ring exists.
constexpr size_t kRingSlots = 1024;
constexpr size_t kSlotBytes = 240;

struct RingSlot {
  uint64_t sequence = 0;
  timespec when{};  // formatted only when the ring is read: recording stays cheap
  char text[kSlotBytes] = {};
};

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
}

void TraceHandle::refresh() {
  auto& r = registry();
  ringMask_ = ruleMask(r.ringRules, unit_);
  textMask_ = ruleMask(r.textRules, unit_);
  uint32_t captureMask = 0;
  for (auto* c : r.captures)
    if (c->matches(unit_)) captureMask |= c->levelMask();
  mask_.store(ringMask_ | textMask_ | captureMask, std::memory_order_relaxed);
}

void TraceHandle::vline(unsigned level, char const* function, fmt::string_view format, fmt::format_args args) {
  auto& r = registry();
  bool const ringOnly = ((textMask_ >> level) & 1u) == 0 && r.captures.empty();
  if (ringOnly) {
    // The common case (a level-0 line nobody prints): format once into a stack
    // buffer, then copy the pieces into the ring slot with plain memcpy.
    fmt::memory_buffer text;
    try {
      fmt::vformat_to(fmt::appender(text), format, args);
    } catch (fmt::format_error const& e) {
      text.clear();
      fmt::format_to(fmt::appender(text), "<bad trace format: {}>", e.what());
    }
    uint64_t seq = r.ringNext.fetch_add(1, std::memory_order_relaxed);
    RingSlot& slot = r.ring[seq % kRingSlots];
    slot.sequence = seq + 1;
    slot.when = now();
    char* out = slot.text;
    char* const last = slot.text + kSlotBytes - 1;
    auto put = [&](std::string_view piece) {
      size_t const n = std::min(piece.size(), static_cast<size_t>(last - out));
      std::memcpy(out, piece.data(), n);
      out += n;
    };
    char const levelText[4] = {' ', 'L', static_cast<char>('0' + level % 10), ' '};
    put(unit_);
    put(std::string_view(levelText, 4));
    if (function) {
      put(function);
      put(": ");
    }
    put(std::string_view(text.data(), text.size()));
    *out = '\0';
    return;
  }
  fmt::memory_buffer text;  // inline storage: short lines never allocate
  try {
    fmt::vformat_to(std::back_inserter(text), format, args);
  } catch (fmt::format_error const& e) {
    text.clear();
    fmt::format_to(std::back_inserter(text), "<bad trace format: {}>", e.what());
  }
  emit(level, function, std::string_view(text.data(), text.size()));
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
    auto end = fmt::format_to_n(slot.text, kSlotBytes - 1, "{} L{} {}{}{}", unit_, level, fn,
                                fn.empty() ? "" : ": ", text);
    *end.out = '\0';
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
    RingSlot const& slot = r.ring[seq % kRingSlots];
    if (slot.sequence == seq + 1) lines.push_back(fmt::format("{} {}", Stamp(slot.when).text, slot.text));
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
