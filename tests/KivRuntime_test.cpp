// The entity runtime: counted references, observers, traces and assertions. Strings, casts,
// parents, declared values, keyed collections, enumerations and the generic interface are
// tested through their users (the model types' names and values, the system status's
// mutators, the transport descriptors, the shadow-field collections and their operations
// called by name).
#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/Trace.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

Kiv::TraceHandle kTrace("Test/KivRuntime");

// An entity with one attribute; it may also watch another Thing through a reactor.
class Thing : public Kiv::Entity {
public:
  class Notifiee : public Kiv::Notifiee<Thing> {
  public:
    virtual void onValue() {}
  };
  explicit Thing(Kiv::String name) : Kiv::Entity(std::move(name)) {}
  ~Thing() override { EXPECT_FALSE(reactor_) << "reactors retire before destruction"; }
  void valueIs(int v) {
    value_ = v;
    notify<Notifiee>([](Notifiee& n) { n.onValue(); });
  }
  int value() const { return value_; }
  void watch(Kiv::Ptr<Thing> const& other) {
    reactor_ = std::make_unique<Notifiee>();
    reactor_->notifierIs(other);
  }
  char const* fwkType() const override { return "Test::Thing"; }

protected:
  void retireReactors() noexcept override { reactor_.reset(); }

private:
  int value_ = 0;
  std::unique_ptr<Notifiee> reactor_;
};

struct Counter : Thing::Notifiee {
  void onValue() override {
    ++calls;
    if (onCall) onCall();
  }
  int calls = 0;
  std::function<void()> onCall;
};

TEST(KivEntity, NotifiesOnlyActiveObserversOfAnActiveEntity) {
  auto thing = Kiv::create<Thing>("t");
  Counter a, b;
  a.notifierIs(thing);
  b.notifierIs(thing);
  thing->valueIs(1);
  b.isNotificationActiveIs(false);
  thing->valueIs(2);
  EXPECT_EQ(a.calls, 2);
  EXPECT_EQ(b.calls, 1);
  thing->hasNotificationActiveIs(false);
  thing->valueIs(3);
  EXPECT_EQ(a.calls, 2);
}

// The observer list shared by entities and shared-memory collections: observers that
// throw or detach while a change is delivered (observers added and removed mid-delivery,
// and deliveries after them: ShmTable_test, on the same list).
TEST(KivEntity, ObserversMayThrowAndDetachDuringDelivery) {
  auto thing = Kiv::create<Thing>("t");
  auto first = std::make_unique<Counter>();
  Counter third;
  first->notifierIs(thing);
  third.notifierIs(thing);
  first->onCall = [] { throw std::runtime_error("first"); };
  third.onCall = [&] {
    first.reset();  // detached mid-delivery, after it threw
    throw std::logic_error("third");
  };
  Kiv::TraceCapture trace("Kiv/Entity");
  EXPECT_THROW(thing->valueIs(1), std::runtime_error) << "the first failure travels on";
  EXPECT_EQ(third.calls, 1) << "observers after a throwing one still hear of the change";
  EXPECT_TRUE(trace.contains("notifiee of Test::Thing 't' also failed: third", 0));
}

TEST(KivEntity, ReactorsRetireWithTheLastReference) {
  auto thing = Kiv::create<Thing>("t");
  auto watcher = Kiv::create<Thing>("w");
  watcher->watch(thing);
  watcher = nullptr;  // ~Thing checks that the reactor retired first
  EXPECT_EQ(thing->notifieeCount(), 0u);
  EXPECT_EQ(thing->references(), 1u) << "the reactor's reference went with it";
}

// The ring line of `emit` as recorded (formatted when read) and as formatted at once
// (a capture makes the line go through the formatting path); both without the time stamp.
template <class F>
std::pair<std::string, std::string> recordedAndFormatted(F const& emit) {
  auto const lastLine = [] {
    auto const lines = Kiv::Trace::ringLines();
    std::string const line = lines.empty() ? "" : lines.back();
    EXPECT_TRUE(std::regex_search(line, std::regex("^\\d\\d:\\d\\d:\\d\\d\\.\\d{6} "))) << line;
    return line.substr(std::min<size_t>(line.size(), 16));
  };
  emit();
  std::string recorded = lastLine();
  Kiv::TraceCapture cap("Test/KivRuntime");
  emit();
  return {recorded, lastLine()};
}

TEST(KivTrace, RingRecordsReadBackAsTheFormattedLine) {
  std::string const longText(1000, 'x');
  char const* const nullText = nullptr;
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[] { kTrace.printf(2, "%s|%s|%s|%d|%u|%x|%#X|%c|%%", std::string("std"), std::string_view("view"), "lit", -5,
                          U8{200}, U64{0xdeadbeefcafeull}, 255, 'q'); },
       "Test/KivRuntime L2 std|view|lit|-5|200|deadbeefcafe|0XFF|q|%"},
      {[] { kTrace.lineIn(0, "tryPerformIO", "error on register '{}': {}", Kiv::String("ctl"), "bus"); },
       "Test/KivRuntime L0 tryPerformIO: error on register 'ctl': bus"},
      {[&] { kTrace.line(0, "null {}", nullText); }, "Test/KivRuntime L0 <bad trace format: string pointer is null>"},
      {[] { kTrace.line(0, "{} {} {} {} {} {} {} {} {}", 1, 2, 3, 4, 5, 6, 7, 8, 9); },  // more than a record keeps
       "Test/KivRuntime L0 1 2 3 4 5 6 7 8 9"},
      // Strings longer than the line: cut, and the line as long as ever.
      {[&] { kTrace.printf(0, "%s then %s and %u", longText, longText, 7u); },
       ("Test/KivRuntime L0 " + longText).substr(0, 239)},
  };
  for (auto const& [emit, expected] : cases) {
    auto const [recorded, formatted] = recordedAndFormatted(emit);
    EXPECT_EQ(recorded, expected);
    EXPECT_EQ(formatted, expected);
  }
}

TEST(KivTrace, CapturesSeeTheEnabledLevelsAndTheRingKeepsTheNewestLinesAndOutlivesItsUnits) {
  Kiv::TraceCapture cap("Test/KivRuntime", Kiv::Trace::upTo(5));
  kTrace.printf(5, "Write field: %s value: %s hex %#x", Kiv::String("c-r-f"), 7u, 255u);
  kTrace.line(8, "never {}", 1);
  EXPECT_EQ(cap.records().size(), 1u);

  Kiv::Trace::ringClear();
  size_t const total = Kiv::Trace::ringCapacity + 5;
  for (size_t i = 0; i < total; ++i) kTrace.printf(0, "line %u", i);
  auto lines = Kiv::Trace::ringLines();
  ASSERT_EQ(lines.size(), Kiv::Trace::ringCapacity);
  EXPECT_TRUE(lines.front().ends_with(" line 5")) << lines.front();
  EXPECT_TRUE(lines.back().ends_with(fmt::format(" line {}", total - 1))) << lines.back();

  // A record refers to its unit's name and format; a unit that goes away (its library
  // unloaded) leaves its lines behind as text.
  char unit[] = "Test/Gone";
  char format[] = "gone with %s";
  {
    Kiv::TraceHandle gone(unit);
    gone.printf(0, format, "its unit");
  }
  unit[0] = format[0] = '?';
  EXPECT_TRUE(Kiv::Trace::ringLines().back().ends_with(" Test/Gone L0 gone with its unit"));
}

void failingCheck(Kiv::String const& who, U32 n) { KIV_ASSERT(kTrace, n < 3) << "too many for " << who << ": " << n; }

TEST(KivAssertDeathTest, PrintsConditionMessageUnitSignatureAndTheLastRingLines) {
  auto const fail = [] {
    kTrace.printf(0, "checking %s", Kiv::String("chipA"));
    failingCheck("chipA", 5);
  };
  std::string const stamp = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]{6} ";
  EXPECT_DEATH(fail(), "condition: n < 3\n  message:   too many for chipA: 5\n  unit:      Test/KivRuntime\n"
                       "  function:  void \\{anonymous\\}::failingCheck\\(const Kiv::String&, U32\\)\n"
                       "(.|\n)*trace lines:\n(.|\n)*    " +
                           stamp + "Test/KivRuntime L0 checking chipA\n    " + stamp +
                           "Test/KivRuntime L0 FATAL: assertion \"n < 3\" failed: too many for chipA: 5\n");
}

}  // namespace
