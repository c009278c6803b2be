#include "Hub.h"

#include "Tell.h"

#include <algorithm>
#include <iterator>
#include <thread>

namespace {

constexpr std::size_t most_sets = 1000;
constexpr std::size_t most_bytes = 16 << 20;
constexpr std::size_t most_applied = 1000;
constexpr std::chrono::milliseconds longest_wait(200);
constexpr std::chrono::milliseconds first_pause(500);
constexpr std::chrono::seconds longest_pause(30);
constexpr std::chrono::seconds settings_interval(1);
constexpr std::chrono::seconds status_interval(2);
constexpr std::chrono::minutes overflow_interval(1); // between lines about it
constexpr int share = 20;                            // of the time, for what is done at intervals

// What it takes to do this.
template <typename Work> Clock::duration durationOf(const Work& work)
{
    const Clock::time_point start = Clock::now();
    work();
    return Clock::now() - start;
}

} // namespace

void Duty::note(Clock::time_point now, Clock::duration taken)
{
    _due = now + std::max(_interval, share * taken);
}

Hub::Hub(Mqtt& mqtt, Centre& centre, Metrics& metrics)
    : _mqtt(mqtt), _centre(centre), _metrics(metrics), _downlink(mqtt, centre),
      _settings(settings_interval), _status(status_interval), _overflow(overflow_interval),
      _pause(first_pause)
{
}

void Hub::subscribe(Mqtt& mqtt)
{
    mqtt.subscribe("$share/hubs/fleet/+/set");
    mqtt.subscribe("$share/hubs/fleet/+/applied");
    mqtt.subscribe("fleet/+/state");
}

void Hub::run(const std::atomic<bool>& isStopped)
{
    while (!isStopped) {
        if (!step(Clock::now()))
            std::this_thread::sleep_for(longest_wait);
    }
}

bool Hub::step(Clock::time_point now)
{
    bool isDone = false;
    if (now >= _retry) {
        collect();
        const Clock::duration taken = durationOf([&] { isDone = work(now); });
        if (isDone)
            _pause = first_pause;
        else
            backOff(now + taken);
        noteTrouble(isDone ? "" : oneLine(_centre.error()));
    }
    measure(now);
    return isDone;
}

// Adds what has come, after a failure to what could not be stored.
void Hub::collect()
{
    std::chrono::milliseconds wait = _batch.sets.empty() && _batch.applied.empty()
                                         ? longest_wait
                                         : std::chrono::milliseconds::zero();
    while (!isFull()) {
        const std::optional<Message> message = _mqtt.next(wait);
        if (!message)
            return;
        take(*message);
        wait = std::chrono::milliseconds::zero();
    }
}

bool Hub::isFull() const
{
    return _batch.sets.size() >= most_sets || _batch.bytes >= most_bytes
           || _batch.applied.size() >= most_applied;
}

void Hub::take(const Message& message)
{
    if (message.topic.empty())
        return _downlink.restart();
    std::string device;
    std::string what;
    Answer answer;
    const bool isOurs = readTopic(message.topic, device, what);
    if (isOurs && what == "set")
        return takeSet(device, message.payload);
    if (isOurs && what == "applied" && unpackAnswer(message.payload, answer))
        return _batch.applied.emplace_back(device, answer), void();
    if (isOurs && what == "state")
        return message.payload == "online" ? _downlink.noteConnected(device) : void();
    _metrics.change([](HubState& state) { ++state.unreadable; });
}

// What a device sends twice comes one after the other.
void Hub::takeSet(const std::string& device, std::string_view payload)
{
    std::string_view header;
    std::string_view bytes;
    const bool isReadable = unpackSet(payload, header, bytes);
    const auto latest = _batch.latest.find(device);
    const Incoming* const previous = latest == _batch.latest.end() ? nullptr
                                                                   : &_batch.sets[latest->second];
    const bool isCopy = isReadable && previous && previous->header == header
                        && previous->bytes == bytes;
    _metrics.change([&](HubState& state) {
        ++state.received;
        state.bytes += static_cast<sql::integer>(payload.size());
        state.unreadable += !isReadable;
        state.copies += isCopy;
    });
    if (!isReadable || isCopy)
        return;
    _batch.latest[device] = _batch.sets.size();
    _batch.sets.push_back({device, std::string(header), std::string(bytes)});
    _batch.bytes += payload.size();
    _downlink.noteSeen(device);
}

bool Hub::work(Clock::time_point now)
{
    return store() && noteApplied(now) && sendSettings(now) && lookAtDevices(now);
}

bool Hub::store()
{
    if (_batch.sets.empty())
        return true;
    std::vector<Answer> answers;
    bool isStored = false;
    const Clock::duration taken = durationOf(
        [&] { isStored = _centre.store(_batch.sets, answers); });
    if (!isStored)
        return false;
    _metrics.change([&](HubState& state) {
        state.stored = _centre.counts();
        state.batches.add(std::chrono::duration<double>(taken).count());
    });
    for (std::size_t i = 0; i < answers.size(); ++i)
        answer(_batch.sets[i].device, answers[i]);
    _batch.sets.clear();
    _batch.latest.clear();
    _batch.bytes = 0;
    return true;
}

// An answer that is lost is asked for again.
void Hub::answer(const std::string& device, const Answer& answer)
{
    const std::string topic = topicOf(device, "ack");
    noteRefused(topic, answer.isStored ? "" : device + ": its set is refused: " + answer.reason);
    if (!_mqtt.publish(topic, packAnswer(answer)))
        complain("cannot answer " + device + ": " + _mqtt.error());
}

bool Hub::noteApplied(Clock::time_point now)
{
    auto next = _batch.applied.begin();
    for (; next != _batch.applied.end(); ++next) {
        const auto& [device, answer] = *next;
        if (!_centre.noteApplied(device, answer)
            && !canDoWithout("cannot note what " + device + " has applied"))
            break;
        if (!answer.isStored)
            _downlink.noteRefused(device, now);
        noteRefused(topicOf(device, "applied"),
                    answer.isStored ? "" : device + ": refuses its settings: " + answer.reason);
    }
    _batch.applied.erase(_batch.applied.begin(), next);
    return _batch.applied.empty();
}

bool Hub::sendSettings(Clock::time_point now)
{
    if (!_settings.isDue(now))
        return true;
    sql::integer count = 0;
    bool isSent = false;
    _settings.note(now, durationOf([&] { isSent = _downlink.send(now, count); }));
    _metrics.change([&](HubState& state) { state.settingsSent += count; });
    return isSent || canDoWithout("cannot tell which settings wait");
}

bool Hub::lookAtDevices(Clock::time_point now)
{
    if (!_status.isDue(now))
        return true;
    const auto devices = std::make_shared<std::vector<DeviceStatus>>();
    bool isKnown = false;
    _status.note(now, durationOf([&] { isKnown = _centre.status(*devices); }));
    if (!isKnown)
        return canDoWithout("cannot tell how the devices stand");
    _metrics.change([&](HubState& state) {
        state.devices = devices;
        state.lookedAt = now;
    });
    return true;
}

// What fails although the centre is there is tried again another time, since sets must go on.
bool Hub::canDoWithout(const std::string& failure)
{
    if (!_centre.isConnected())
        return false;
    complain(failure + ": " + _centre.error());
    return true;
}

// By a random part of the pause less, so that hubs do not all come back at once.
void Hub::backOff(Clock::time_point now)
{
    _retry = now + _pause / 2 + _pause * (_random() % 128) / 256;
    _pause = std::min<Clock::duration>(2 * _pause, longest_pause);
}

void Hub::noteTrouble(const std::string& trouble)
{
    if (trouble == _trouble)
        return;
    tell(trouble.empty() ? "the centre is back" : "the centre does not store: " + trouble);
    _trouble = trouble;
    _metrics.change([&](HubState& state) { state.trouble = trouble; });
}

// The same reason is told once.
void Hub::noteRefused(const std::string& topic, const std::string& text)
{
    const auto told = _refused.find(topic);
    if (text.empty() && told != _refused.end())
        _refused.erase(told);
    if (text.empty() || (told != _refused.end() && told->second == text))
        return;
    tell(text);
    _refused[topic] = text;
}

void Hub::complain(const std::string& text)
{
    if (text != _complaint)
        tell(text);
    _complaint = text;
}

// Also of one that is away from the beginning, once there is a reason.
void Hub::tellOfBroker(bool isUp)
{
    const std::string reason = _mqtt.error();
    if (isUp == _isBrokerUp || (!isUp && reason.empty()))
        return;
    tell(isUp ? "the broker is connected" : "the broker is away: " + reason);
    _isBrokerUp = isUp;
}

void Hub::measure(Clock::time_point now)
{
    const bool isUp = _mqtt.isConnected();
    const sql::integer overflowed = _mqtt.overflowed();
    _metrics.change([&](HubState& state) {
        state.isBrokerUp = isUp;
        state.overflowed = overflowed;
        state.sample(now);
    });
    tellOfBroker(isUp);
    if (overflowed == _overflowed || !_overflow.isDue(now))
        return;
    tell(std::to_string(overflowed) + " messages were let go: too many are waiting");
    _overflowed = overflowed;
    _overflow.note(now, Clock::duration::zero());
}
