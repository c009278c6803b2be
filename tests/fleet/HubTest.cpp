#include "Hub.h"

#include <gmock/gmock.h>

#include <deque>
#include <iostream>
#include <sstream>
#include <thread>

namespace {

// What the class Mqtt below speaks to.
struct TestBroker {
    std::deque<Message> coming;
    std::vector<std::string> filters;
    std::vector<std::string> published; // topic, blank, payload
    bool isConnected = true;
    bool takes = true;
    long long overflowed = 0;
};

// What the class Centre below speaks to.
struct TestCentre {
    bool isConnected = true;
    std::string failing;                           // operation
    int asked = 0;                                 // to store
    std::vector<std::vector<std::string>> batches; // stored: device, blank, bytes of each set
    std::map<std::string, std::string> refusals;   // why, by the bytes of the set
    std::vector<std::string> applied;              // device, blank, answer
    std::vector<Outgoing> outgoing;
    std::vector<DeviceStatus> devices;
    int looks = 0;
    CentreCounts counts;

    bool fails(const char* operation) const
    {
        return failing == operation || !isConnected;
    }
};

TestBroker broker;
TestCentre centre;

} // namespace

// In place of the real ones: what they hold is here.

struct Mqtt::Core {};

Mqtt::Mqtt(const std::string&, bool)
{
}
Mqtt::~Mqtt() = default;

void Mqtt::subscribe(const std::string& filter)
{
    broker.filters.push_back(filter);
}

std::optional<Message> Mqtt::next(std::chrono::milliseconds)
{
    if (broker.coming.empty())
        return std::nullopt;
    const Message message = broker.coming.front();
    broker.coming.pop_front();
    return message;
}

bool Mqtt::publish(const std::string& topic, std::string_view payload, bool isRetained)
{
    EXPECT_FALSE(isRetained);
    if (broker.takes)
        broker.published.push_back(topic + ' ' + std::string(payload));
    return broker.takes;
}

bool Mqtt::isConnected() const
{
    return broker.isConnected;
}

long long Mqtt::overflowed() const
{
    return broker.overflowed;
}

std::string Mqtt::error() const
{
    return "the line is cut";
}

struct Centre::Core {};

Centre::Centre(const CentreOptions&)
{
}
Centre::~Centre() = default;

bool Centre::store(const std::vector<Incoming>& sets, std::vector<Answer>& answers)
{
    ++centre.asked;
    if (centre.fails("store"))
        return false;
    std::vector<std::string>& batch = centre.batches.emplace_back();
    for (const Incoming& set : sets) {
        batch.push_back(set.device + ' ' + set.bytes.substr(0, 20));
        const auto refusal = centre.refusals.find(set.bytes);
        const bool isStored = refusal == centre.refusals.end();
        const long long number = std::stoll(set.header);
        answers.push_back({isStored, {7, number}, isStored ? "" : refusal->second});
        centre.counts.sets += isStored;
        centre.counts.rows += 10 * isStored;
    }
    return true;
}

bool Centre::outgoing(const std::vector<std::string>& devices, std::vector<Outgoing>& sets)
{
    EXPECT_THAT(devices, testing::IsEmpty());
    sets = centre.outgoing;
    return !centre.fails("outgoing");
}

bool Centre::noteApplied(const std::string& device, const Answer& answer)
{
    if (centre.fails("noteApplied"))
        return false;
    centre.applied.push_back(device + ' ' + packAnswer(answer));
    return true;
}

bool Centre::status(std::vector<DeviceStatus>& devices)
{
    ++centre.looks;
    devices = centre.devices;
    return !centre.fails("status");
}

CentreCounts Centre::counts() const
{
    return centre.counts;
}

bool Centre::isConnected() const
{
    return centre.isConnected;
}

const std::string& Centre::error() const
{
    static const std::string text = "no route\n\tto host\n";
    return text;
}

namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

Message setOf(const std::string& device, int number, const std::string& bytes)
{
    return {"fleet/" + device + "/set", packSet(std::to_string(number), bytes)};
}

Outgoing settingsOf(const std::string& device, int number)
{
    return {device, "h" + std::to_string(number), "", {9, number}};
}

class HubTest : public testing::Test {
protected:
    HubTest() : _before(std::cerr.rdbuf(_text.rdbuf()))
    {
        broker = TestBroker();
        centre = TestCentre();
        _hub.step(_now);
        EXPECT_THAT(told(), ElementsAre("fleet-hub: the broker is connected"));
    }

    ~HubTest() override
    {
        EXPECT_THAT(told(), IsEmpty());
        std::cerr.rdbuf(_before);
    }

    // What was written to standard error since the last time.
    std::vector<std::string> told()
    {
        std::vector<std::string> lines;
        std::istringstream text(_text.str());
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        _text.str("");
        return lines;
    }

    // A round after this time.
    bool after(Clock::duration duration)
    {
        _now += duration;
        return _hub.step(_now);
    }

    // What is published in a round after this time.
    std::vector<std::string> publishedAfter(Clock::duration duration)
    {
        broker.published.clear();
        after(duration);
        return broker.published;
    }

    // Where this set of settings is published, in lines as above.
    std::string published(const std::string& device, int number)
    {
        return "fleet/" + device + "/settings " + packSet("h" + std::to_string(number), "");
    }

    HubState state() const
    {
        return _metrics.state();
    }

    std::ostringstream _text;
    std::streambuf* _before;
    Clock::time_point _now = Clock::time_point() + std::chrono::hours(1);
    Mqtt _mqtt{"hub", false};
    Centre _centre{CentreOptions()};
    Metrics _metrics{"hub"};
    Hub _hub{_mqtt, _centre, _metrics};
};

TEST_F(HubTest, SubscribesSoThatEachSetGoesToOneHub)
{
    Hub::subscribe(_mqtt);
    EXPECT_THAT(broker.filters, ElementsAre("$share/hubs/fleet/+/set",
                                            "$share/hubs/fleet/+/applied", "fleet/+/state"));
}

TEST_F(HubTest, WhatWaitsIsStoredAtOnceAndAnswered)
{
    broker.coming = {setOf("a", 1, "one"), setOf("b", 5, "five"), setOf("a", 2, "two")};
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(centre.batches, ElementsAre(ElementsAre("a one", "b five", "a two")));
    EXPECT_THAT(broker.published, ElementsAre("fleet/a/ack stored 7 1", "fleet/b/ack stored 7 5",
                                              "fleet/a/ack stored 7 2"));
    EXPECT_EQ(state().received, 3);
    EXPECT_EQ(state().bytes, 4 * 3 + 3 + 3 + 4 + 3); // with length and header
    EXPECT_EQ(state().stored.rows, 30);
    EXPECT_EQ(state().batches.counts[0], 1);

    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(centre.batches, SizeIs(1));
    EXPECT_THAT(broker.published, SizeIs(3));
}

TEST_F(HubTest, SetThatComesTwiceInABatchIsStoredAndAnsweredOnce)
{
    broker.coming = {setOf("a", 1, "one"), setOf("b", 1, "one"), setOf("a", 1, "one"),
                     setOf("a", 1, "two"), setOf("a", 1, "one")};
    after(seconds(1));
    EXPECT_THAT(centre.batches, ElementsAre(ElementsAre("a one", "b one", "a two", "a one")));
    EXPECT_THAT(broker.published, SizeIs(4));
    EXPECT_EQ(state().copies, 1);

    broker.coming = {setOf("a", 1, "one")}; // another batch
    after(seconds(1));
    EXPECT_THAT(broker.published, SizeIs(5));
    EXPECT_EQ(state().copies, 1);
}

TEST_F(HubTest, RefusalIsAnsweredAndEachReasonToldOnce)
{
    const std::string line = "fleet-hub: a: its set is refused: sets are missing";
    centre.refusals = {{"three", "sets are missing"}, {"x", "another file"}};
    broker.coming = {setOf("a", 3, "three")};
    after(seconds(1));
    EXPECT_THAT(broker.published, ElementsAre("fleet/a/ack refused 7 3 sets are missing"));
    EXPECT_THAT(told(), ElementsAre(line));

    broker.coming = {setOf("a", 3, "three")};
    after(seconds(1));
    EXPECT_THAT(broker.published, SizeIs(2));
    EXPECT_THAT(told(), IsEmpty());

    broker.coming = {setOf("a", 4, "x")};
    after(seconds(1));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: a: its set is refused: another file"));

    broker.coming = {setOf("a", 1, "one"), setOf("a", 3, "three")};
    after(seconds(1));
    EXPECT_THAT(told(), ElementsAre(line));
}

TEST_F(HubTest, BatchHasAThousandSets)
{
    for (int number = 1; number <= 1001; ++number)
        broker.coming.push_back(setOf("a", number, "x"));
    after(seconds(1));
    after(seconds(1));
    EXPECT_THAT(centre.batches, ElementsAre(SizeIs(1000), SizeIs(1)));
    EXPECT_THAT(broker.published, SizeIs(1001));
}

TEST_F(HubTest, BatchEndsWithTheSetThatBringsItTo16MiB)
{
    const std::string half((8 << 20) - 5, 'x'); // with length and header
    const std::string less((8 << 20) - 6, 'x');
    for (const std::string& bytes : {half, half, half, less, half})
        broker.coming.push_back(setOf("a", int(broker.coming.size()), bytes));
    after(seconds(1));
    after(seconds(1));
    EXPECT_THAT(centre.batches, ElementsAre(SizeIs(2), SizeIs(3)));
}

TEST_F(HubTest, ThousandAnswersAreNotedAtOnce)
{
    broker.coming.assign(1001, {"fleet/a/applied", "stored 9 1"});
    after(seconds(1));
    EXPECT_THAT(centre.applied, SizeIs(1000));
    after(seconds(1));
    EXPECT_THAT(centre.applied, SizeIs(1001));
}

TEST_F(HubTest, NothingIsAnsweredBeforeItIsStored)
{
    centre.isConnected = false;
    broker.coming = {setOf("a", 1, "one")};
    EXPECT_FALSE(after(seconds(1)));
    EXPECT_THAT(broker.published, IsEmpty());
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the centre does not store: no route  to host"));
    EXPECT_EQ(state().trouble, "no route  to host");

    broker.coming = {setOf("a", 1, "one"), setOf("b", 1, "two")}; // waits meanwhile
    EXPECT_FALSE(after(seconds(0)));
    EXPECT_THAT(broker.coming, SizeIs(2));
    EXPECT_EQ(centre.asked, 1);

    centre.isConnected = true;
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(centre.batches, ElementsAre(ElementsAre("a one", "b two")));
    EXPECT_THAT(broker.published, ElementsAre("fleet/a/ack stored 7 1", "fleet/b/ack stored 7 1"));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the centre is back"));
    EXPECT_EQ(state().trouble, "");
}

TEST_F(HubTest, CentreThatFailsIsTriedLessAndLessOften)
{
    centre.failing = "store"; // although it is connected
    broker.coming = {setOf("a", 1, "one")};
    std::vector<double> pauses;
    Clock::time_point last = _now;
    for (int asked = 0; pauses.size() < 12;) {
        EXPECT_FALSE(after(std::chrono::milliseconds(10)));
        if (centre.asked == asked)
            continue;
        asked = centre.asked;
        pauses.push_back(std::chrono::duration<double>(_now - last).count());
        last = _now;
    }
    double longest = 0.5;
    for (std::size_t i = 1; i < pauses.size(); ++i) {
        EXPECT_GE(pauses[i], longest / 2) << i;
        EXPECT_LE(pauses[i], longest + 0.1) << i;
        longest = std::min(2 * longest, 30.0);
    }
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the centre does not store: no route  to host"));

    centre.failing.clear();
    EXPECT_TRUE(after(seconds(30)));
    EXPECT_THAT(broker.published, ElementsAre("fleet/a/ack stored 7 1"));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the centre is back"));
}

TEST_F(HubTest, AnswerThatCannotBeGivenIsTold)
{
    broker.takes = false;
    broker.coming = {setOf("a", 1, "one"), setOf("a", 2, "two")};
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: cannot answer a: the line is cut"));
}

TEST_F(HubTest, WhatIsNoneOfTheFleetsMessagesIsCounted)
{
    broker.coming = {{"fleet/a/set", "abc"},
                     {"fleet/a/set", std::string("\xff\0\0\0x", 5)},
                     {"fleet/a/applied", "perhaps 1 2"},
                     {"fleet/a/ack", "stored 1 2"},
                     {"fleet/a/b/set", ""},
                     {"other", ""}};
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_EQ(state().unreadable, 6);
    EXPECT_EQ(state().received, 2);
    EXPECT_EQ(centre.asked, 0);
    EXPECT_THAT(broker.published, IsEmpty());
}

TEST_F(HubTest, WhatADeviceHasAppliedIsNoted)
{
    broker.coming = {{"fleet/a/applied", "stored 9 1"}, {"fleet/b/applied", "refused 9 2 no room"}};
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(centre.applied, ElementsAre("a stored 9 1", "b refused 9 2 no room"));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: b: refuses its settings: no room"));

    broker.coming = {{"fleet/b/applied", "refused 9 2 no room"}};
    after(seconds(1));
    EXPECT_THAT(centre.applied, SizeIs(3));
}

TEST_F(HubTest, WhatIsAppliedIsNotedOnceTheCentreIsBack)
{
    centre.isConnected = false;
    broker.coming = {{"fleet/a/applied", "stored 9 1"}};
    EXPECT_FALSE(after(seconds(1)));
    EXPECT_THAT(told(), SizeIs(1));
    centre.isConnected = true;
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(centre.applied, ElementsAre("a stored 9 1"));
    EXPECT_THAT(told(), SizeIs(1));
}

TEST_F(HubTest, WhatTheCentreCanNotNoteHoldsNothingUp)
{
    centre.failing = "noteApplied";
    broker.coming = {{"fleet/a/applied", "refused 9 1 \xff"}, setOf("a", 1, "one")};
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(broker.published, ElementsAre("fleet/a/ack stored 7 1"));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: cannot note what a has applied: no route  to host",
                                    "fleet-hub: a: refuses its settings: \xff"));
    centre.failing.clear();
    EXPECT_TRUE(after(seconds(1)));
    EXPECT_THAT(centre.applied, IsEmpty());
}

TEST_F(HubTest, SettingsGoToADeviceAgainLessAndLessOften)
{
    centre.outgoing = {settingsOf("a", 1), settingsOf("b", 4)};
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 1), published("b", 4)));
    EXPECT_EQ(state().settingsSent, 2);
    EXPECT_THAT(publishedAfter(seconds(29)), IsEmpty());

    centre.outgoing = {settingsOf("a", 2)}; // both applied theirs
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 2)));
    for (const int pause : {30, 60, 120, 240, 480, 960, 1800, 1800}) {
        EXPECT_THAT(publishedAfter(seconds(pause - 1)), IsEmpty()) << pause;
        EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 2))) << pause;
    }

    broker.coming = {setOf("a", 1, "one")}; // it is there
    EXPECT_THAT(publishedAfter(seconds(1)),
                ElementsAre("fleet/a/ack stored 7 1", published("a", 2)));
    broker.coming = {setOf("a", 2, "two")};
    EXPECT_THAT(publishedAfter(seconds(29)), ElementsAre("fleet/a/ack stored 7 2"));
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 2)));
}

TEST_F(HubTest, SettingsThatAreRefusedWaitWhateverTheyAreThen)
{
    centre.outgoing = {settingsOf("a", 3)};
    EXPECT_THAT(publishedAfter(seconds(1)), SizeIs(1));
    broker.coming = {{"fleet/a/applied", "refused 9 3 gap"}};
    centre.outgoing = {settingsOf("a", 1)}; // all of them again
    EXPECT_THAT(publishedAfter(seconds(1)), IsEmpty());
    EXPECT_THAT(told(), SizeIs(1));
    EXPECT_THAT(publishedAfter(seconds(29)), IsEmpty());
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 1)));
    broker.coming = {{"fleet/a/applied", "stored 9 1"}};
    centre.outgoing = {settingsOf("a", 2)};
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 2)));
}

TEST_F(HubTest, SettingsGoAgainOnceTheDeviceConnects)
{
    centre.outgoing = {settingsOf("a", 1)};
    EXPECT_THAT(publishedAfter(seconds(1)), SizeIs(1));
    broker.coming = {{"fleet/a/state", "offline"}, {"fleet/b/state", "online"}};
    EXPECT_THAT(publishedAfter(seconds(1)), IsEmpty());
    broker.coming = {{"fleet/a/state", "online"}};
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 1)));
    EXPECT_THAT(publishedAfter(seconds(29)), IsEmpty());
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 1)));

    broker.coming = {{"fleet/a/applied", "refused 9 1 no room"}, {"fleet/a/state", "online"}};
    EXPECT_THAT(publishedAfter(seconds(1)), IsEmpty());
    EXPECT_THAT(told(), SizeIs(1));
    broker.coming = {{"fleet/a/state", "online"}};
    EXPECT_THAT(publishedAfter(seconds(28)), IsEmpty());
    EXPECT_THAT(publishedAfter(seconds(2)), ElementsAre(published("a", 1)));
    EXPECT_EQ(state().unreadable, 0);
}

TEST_F(HubTest, SettingsGoAgainOnceTheBrokerIsBack)
{
    centre.outgoing = {settingsOf("a", 1)};
    EXPECT_THAT(publishedAfter(seconds(1)), SizeIs(1));
    broker.coming = {{"", ""}};
    EXPECT_THAT(publishedAfter(seconds(1)), ElementsAre(published("a", 1)));
}

TEST_F(HubTest, DevicesAreLookedAtEveryTwoSeconds)
{
    EXPECT_EQ(centre.looks, 1);
    centre.devices.resize(3);
    after(std::chrono::milliseconds(1999));
    EXPECT_EQ(centre.looks, 1);
    EXPECT_THAT(*state().devices, IsEmpty());
    after(std::chrono::milliseconds(1));
    EXPECT_EQ(centre.looks, 2);
    EXPECT_THAT(*state().devices, SizeIs(3));
    EXPECT_EQ(state().lookedAt, _now);
}

TEST_F(HubTest, SetsAreStoredWhileNothingElseWorks)
{
    for (const char* const operation : {"status", "outgoing"}) {
        centre.failing = operation;
        broker.coming = {setOf("a", 1, "one")};
        EXPECT_TRUE(after(seconds(2)));
        EXPECT_TRUE(after(seconds(2)));
    }
    EXPECT_THAT(centre.batches, SizeIs(2));
    EXPECT_THAT(told(),
                ElementsAre("fleet-hub: cannot tell how the devices stand: no route  to host",
                            "fleet-hub: cannot tell which settings wait: no route  to host"));
}

TEST_F(HubTest, WhatTheBrokerDoesIsTold)
{
    broker.isConnected = false;
    after(seconds(1));
    after(seconds(1));
    EXPECT_FALSE(state().isBrokerUp);
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the broker is away: the line is cut"));
    broker.isConnected = true;
    after(seconds(1));
    EXPECT_TRUE(state().isBrokerUp);
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the broker is connected"));
}

TEST_F(HubTest, ABrokerThatIsAwayFromTheBeginningIsTold)
{
    broker.isConnected = false;
    Metrics metrics("hub-2");
    Hub hub(_mqtt, _centre, metrics);
    hub.step(_now);
    hub.step(_now);
    EXPECT_THAT(told(), ElementsAre("fleet-hub: the broker is away: the line is cut"));
}

TEST_F(HubTest, MessagesLetGoAreToldOnceAMinute)
{
    broker.overflowed = 3;
    after(seconds(1));
    EXPECT_EQ(state().overflowed, 3);
    EXPECT_THAT(told(), ElementsAre("fleet-hub: 3 messages were let go: too many are waiting"));
    broker.overflowed = 5;
    after(seconds(59));
    EXPECT_EQ(state().overflowed, 5);
    EXPECT_THAT(told(), IsEmpty());
    after(seconds(1));
    EXPECT_THAT(told(), ElementsAre("fleet-hub: 5 messages were let go: too many are waiting"));
    after(minutes(2));
}

TEST_F(HubTest, RowsAreSampledEachSecond)
{
    after(seconds(1));
    after(std::chrono::milliseconds(500));
    broker.coming = {setOf("a", 1, "one")};
    after(std::chrono::milliseconds(500));
    std::vector<sql::integer> rows;
    for (const HubState::Sample& sample : state().samples)
        rows.push_back(sample.rows);
    EXPECT_THAT(rows, ElementsAre(0, 0, 10));
}

TEST_F(HubTest, RunsUntilItIsStopped)
{
    std::atomic<bool> isStopped = false;
    std::thread stopper([&isStopped] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        isStopped = true;
    });
    broker.coming = {setOf("a", 1, "one")};
    _hub.run(isStopped);
    stopper.join();
    EXPECT_THAT(broker.published, ElementsAre("fleet/a/ack stored 7 1"));
}

TEST(DutyTest, TakesATwentiethOfTheTimeAtMost)
{
    Duty duty(seconds(2));
    const Clock::time_point now = Clock::time_point() + minutes(1);
    EXPECT_TRUE(duty.isDue(now));
    duty.note(now, std::chrono::milliseconds(100));
    EXPECT_FALSE(duty.isDue(now + std::chrono::milliseconds(1999)));
    EXPECT_TRUE(duty.isDue(now + seconds(2)));
    duty.note(now, seconds(1));
    EXPECT_FALSE(duty.isDue(now + seconds(19)));
    EXPECT_TRUE(duty.isDue(now + seconds(20)));
}

} // namespace
