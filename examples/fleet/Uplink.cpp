#include "Uplink.h"

#include <algorithm>
#include <iostream>

namespace {

constexpr std::chrono::seconds shortest_patience(10);
constexpr std::chrono::seconds longest_patience(60);
constexpr std::chrono::seconds idle(1); // how soon new change sets are seen

} // namespace

Uplink::Uplink(Device& device, const std::string& name)
    : _device(device), _name(name), _mqtt(name, true), _patience(shortest_patience)
{
}

bool Uplink::start(const Broker& broker)
{
    _mqtt.subscribe(topicOf(_name, "ack"));
    _mqtt.subscribe(topicOf(_name, "settings"));
    return _mqtt.leaveBehind(topicOf(_name, "state"), "offline") && _mqtt.start(broker);
}

void Uplink::step()
{
    tellOfBroker();
    while (const std::optional<Message> message = _mqtt.next(std::chrono::milliseconds(0)))
        take(*message);
    if (_sent && Clock::now() >= _again) {
        _patience = std::min(_patience * 2, longest_patience);
        _device.outbox().restart();
        _sent.reset();
    }
    if (!_sent && _mqtt.isConnected() && Clock::now() >= _again)
        send();
}

std::chrono::milliseconds Uplink::due() const
{
    using std::chrono::milliseconds;
    if (!_sent && !_mqtt.isConnected())
        return idle;
    return std::max(std::chrono::ceil<milliseconds>(_again - Clock::now()), milliseconds(0));
}

int Uplink::descriptor() const
{
    return _mqtt.descriptor();
}

bool Uplink::isDone()
{
    const auto pending = _device.outbox().pending();
    return pending && pending->sets == 0;
}

void Uplink::end()
{
    _mqtt.publish(topicOf(_name, "state"), "offline", true);
}

std::string Uplink::error() const
{
    return _mqtt.error();
}

// Once each time it goes, or is not there from the beginning, and when it is back.
void Uplink::tellOfBroker()
{
    const bool isAway = !_mqtt.isConnected() && !_mqtt.error().empty();
    if (isAway && !_isAway)
        std::cerr << "fleet-device: the broker is away: " << _mqtt.error() << std::endl;
    else if (_isAway && _mqtt.isConnected())
        std::cerr << "fleet-device: the broker is connected" << std::endl;
    else
        return;
    _isAway = isAway;
}

void Uplink::take(const Message& message)
{
    std::string device;
    std::string what;
    Answer answer;
    if (message.topic.empty()) {
        _mqtt.publish(topicOf(_name, "state"), "online", true);
        _patience = shortest_patience;
        _again = Clock::time_point(); // what was on its way may be lost
    } else if (!readTopic(message.topic, device, what)) {
        return;
    } else if (what == "settings") {
        takeSettings(message.payload);
    } else if (what == "ack" && unpackAnswer(message.payload, answer)) {
        takeAnswer(answer);
    }
}

void Uplink::takeAnswer(const Answer& answer)
{
    if (!answer.isStored) {
        _device.complain("the hub refuses commit " + std::to_string(answer.last.number) + ": "
                         + answer.reason);
        if (_sent == answer.last) // and not of one that has come to be stored since
            sendAgainAfter(longest_patience);
        return;
    }
    if (!_device.outbox().acknowledge(answer.last))
        return _device.complain("cannot let go of what was sent: "
                                + _device.outbox().error().text());
    if (_sent != answer.last)
        return; // of one that was sent before
    _sent.reset();
    _again = Clock::time_point();
    _patience = shortest_patience;
}

void Uplink::takeSettings(std::string_view payload)
{
    std::string_view header;
    std::string_view bytes;
    if (unpackSet(payload, header, bytes))
        _mqtt.publish(topicOf(_name, "applied"), packAnswer(_device.apply(header, bytes)));
}

void Uplink::send()
{
    sql::ChangeSet set;
    if (!_device.outbox().next(set)) {
        _again = Clock::now() + idle;
        if (_device.outbox().error())
            _device.complain("cannot read what is to be sent: " + _device.outbox().error().text());
        else
            _device.tidy();
        return;
    }
    _mqtt.publish(topicOf(_name, "set"), packSet(set.header(), set.bytes()));
    _sent = set.last();
    sendAgainAfter(_patience);
}

// Not all devices at once, after a hub was away.
void Uplink::sendAgainAfter(std::chrono::seconds pause)
{
    const auto most = static_cast<unsigned>(std::chrono::milliseconds(pause).count()) / 4;
    _again = Clock::now() + pause + std::chrono::milliseconds(_random() % most);
}
