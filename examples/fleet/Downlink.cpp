#include "Downlink.h"

#include <algorithm>

namespace {

constexpr std::chrono::seconds first_pause(30);
constexpr std::chrono::minutes longest_pause(30);

} // namespace

bool Downlink::send(Clock::time_point now, sql::integer& count)
{
    std::vector<Outgoing> sets;
    if (!_centre.outgoing({}, sets))
        return false;
    std::map<std::string, Sent> sent; // without those that are applied
    for (const Outgoing& set : sets) {
        Sent& mine = sent[set.device] = _sent[set.device];
        if (isDue(set, mine, now)
            && _mqtt.publish(topicOf(set.device, "settings"), packSet(set.header, set.bytes)))
            ++count;
    }
    _sent = std::move(sent);
    return true;
}

bool Downlink::isDue(const Outgoing& set, Sent& sent, Clock::time_point now)
{
    const bool isRepeated = set.last == sent.last;
    if ((isRepeated || sent.isHeld) && now < sent.again)
        return false;
    sent.last = set.last;
    sent.isHeld = false;
    sent.pause = isRepeated ? std::min<Clock::duration>(2 * sent.pause, longest_pause)
                            : Clock::duration(first_pause);
    sent.again = now + sent.pause;
    return true;
}

void Downlink::noteSeen(const std::string& device)
{
    const auto sent = _sent.find(device);
    if (sent != _sent.end() && sent->second.pause > first_pause)
        hurry(sent->second);
}

void Downlink::noteConnected(const std::string& device)
{
    const auto sent = _sent.find(device);
    if (sent != _sent.end() && !sent->second.isHeld)
        hurry(sent->second);
}

void Downlink::hurry(Sent& sent)
{
    sent.pause = first_pause / 2;
    sent.again = Clock::time_point();
}

void Downlink::noteRefused(const std::string& device, Clock::time_point now)
{
    Sent& sent = _sent[device];
    sent.isHeld = true;
    sent.again = now + first_pause;
}

void Downlink::restart()
{
    _sent.clear();
}
