#include "Mqtt.h"

#include <mosquitto.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t most_bytes = 64 << 20; // of messages that wait
constexpr int keep_alive = 30;               // seconds
constexpr int most_in_flight = 1000;         // messages
constexpr int at_least_once = 1;
constexpr int wait_in_loop = 1000; // milliseconds
constexpr std::chrono::milliseconds shortest_pause(500);
constexpr std::chrono::milliseconds longest_pause(60000);

const char* orNull(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

struct Mqtt::Core {
    Core(const std::string& name, bool isKept)
        : client(mosquitto_new(name.c_str(), !isKept, this), mosquitto_destroy),
          event(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
    }
    ~Core()
    {
        close(event);
    }
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    bool fail(const std::string& what, int rc);
    void run();
    void connect(bool isFirst);
    bool isLost() const;
    void pause();
    void push(Message message);
    void subscribe();

    static void tellConnected(mosquitto*, void* core, int rc);
    static void tellDisconnected(mosquitto*, void* core, int rc);
    static void takeMessage(mosquitto*, void* core, const mosquitto_message* message);

    Broker broker;
    std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> client;
    std::vector<std::string> filters;
    std::thread thread;
    std::atomic<bool> isConnected = false;
    std::atomic<bool> isEnding = false;
    std::chrono::milliseconds nextPause = shortest_pause;
    std::minstd_rand random{std::random_device()()};

    mutable std::mutex mutex; // of what follows
    std::condition_variable changed;
    std::deque<Message> messages;
    std::size_t bytes = 0;
    long long overflowed = 0;
    std::string error;
    int event; // can be read while messages wait
};

// --- The connection's thread ---------------------------------------------------------------------

bool Mqtt::Core::fail(const std::string& what, int rc)
{
    const std::lock_guard<std::mutex> lock(mutex);
    error = what + ": " + mosquitto_strerror(rc);
    return false;
}

void Mqtt::Core::run()
{
    bool isFirst = true;
    while (!isEnding) {
        connect(isFirst);
        isFirst = false;
        isConnected = false;
        pause();
    }
}

// Until the connection is lost, or could not be made.
void Mqtt::Core::connect(bool isFirst)
{
    int rc = isFirst ? mosquitto_connect_async(client.get(), broker.host.c_str(), broker.port,
                                               keep_alive)
                     : mosquitto_reconnect_async(client.get());
    // At the end what was published last still goes.
    for (int rounds = 2; rc == MOSQ_ERR_SUCCESS && rounds > 0; rounds -= isEnding)
        rc = isLost() ? MOSQ_ERR_CONN_LOST : mosquitto_loop(client.get(), wait_in_loop, 1);
    if (rc != MOSQ_ERR_SUCCESS)
        fail("no connection to " + broker.host, rc);
}

// With TLS libmosquitto would go on for ever with a connection that could not be made.
bool Mqtt::Core::isLost() const
{
    pollfd one = {mosquitto_socket(client.get()), 0, 0};
    return !isConnected && poll(&one, 1, 0) > 0 && (one.revents & (POLLERR | POLLHUP)) != 0;
}

// Ever longer, and never all at once: a broker that comes back is not run over.
void Mqtt::Core::pause()
{
    std::unique_lock<std::mutex> lock(mutex);
    const auto most = static_cast<unsigned>(nextPause.count());
    const std::chrono::milliseconds length(most / 2 + random() % most);
    nextPause = std::min(nextPause * 2, longest_pause);
    changed.wait_for(lock, length, [this] { return isEnding.load(); });
}

void Mqtt::Core::subscribe()
{
    for (const std::string& filter : filters)
        mosquitto_subscribe(client.get(), nullptr, filter.c_str(), at_least_once);
}

void Mqtt::Core::push(Message message)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (bytes + message.payload.size() > most_bytes) {
        ++overflowed;
        return;
    }
    messages.push_back(std::move(message));
    bytes += messages.back().payload.size();
    eventfd_write(event, 1);
    changed.notify_all();
}

void Mqtt::Core::tellConnected(mosquitto*, void* core, int rc)
{
    Core& self = *static_cast<Core*>(core);
    if (rc != 0) {
        const std::lock_guard<std::mutex> lock(self.mutex);
        self.error = std::string("refused by ") + self.broker.host + ": "
                     + mosquitto_connack_string(rc);
        return;
    }
    self.nextPause = shortest_pause;
    self.isConnected = true;
    self.subscribe();
    self.push({});
}

void Mqtt::Core::tellDisconnected(mosquitto*, void* core, int)
{
    static_cast<Core*>(core)->isConnected = false;
}

// Called by C.
void Mqtt::Core::takeMessage(mosquitto*, void* core, const mosquitto_message* message)
{
    Core& self = *static_cast<Core*>(core);
    try {
        self.push({message->topic,
                   {static_cast<const char*>(message->payload),
                    static_cast<std::size_t>(message->payloadlen)}});
    } catch (const std::bad_alloc&) {
        const std::lock_guard<std::mutex> lock(self.mutex);
        ++self.overflowed;
    }
}

// --- The program's -------------------------------------------------------------------------------

Mqtt::Mqtt(const std::string& client, bool isKept)
{
    mosquitto_lib_init();
    _core = std::make_unique<Core>(client, isKept);
}

Mqtt::~Mqtt()
{
    {
        const std::lock_guard<std::mutex> lock(_core->mutex);
        _core->isEnding = true;
        _core->changed.notify_all();
    }
    mosquitto_disconnect(_core->client.get());
    if (_core->thread.joinable())
        _core->thread.join();
    _core.reset();
    mosquitto_lib_cleanup();
}

bool Mqtt::leaveBehind(const std::string& topic, const std::string& payload)
{
    const int rc = mosquitto_will_set(_core->client.get(), topic.c_str(),
                                      static_cast<int>(payload.size()), payload.data(),
                                      at_least_once, true);
    return rc == MOSQ_ERR_SUCCESS || _core->fail("cannot leave a message behind", rc);
}

void Mqtt::subscribe(const std::string& filter)
{
    _core->filters.push_back(filter);
}

bool Mqtt::start(const Broker& broker)
{
    mosquitto* const client = _core->client.get();
    _core->broker = broker;
    if (!broker.authority.empty()) {
        const int rc = mosquitto_tls_set(client, broker.authority.c_str(), nullptr,
                                         orNull(broker.certificate), orNull(broker.key), nullptr);
        if (rc != MOSQ_ERR_SUCCESS)
            return _core->fail("cannot use the certificates", rc);
    }
    mosquitto_threaded_set(client, true);
    mosquitto_max_inflight_messages_set(client, most_in_flight);
    mosquitto_connect_callback_set(client, Core::tellConnected);
    mosquitto_disconnect_callback_set(client, Core::tellDisconnected);
    mosquitto_message_callback_set(client, Core::takeMessage);
    _core->thread = std::thread(&Core::run, _core.get());
    return true;
}

std::optional<Message> Mqtt::next(std::chrono::milliseconds longest)
{
    std::unique_lock<std::mutex> lock(_core->mutex);
    if (!_core->changed.wait_for(lock, longest, [this] { return !_core->messages.empty(); }))
        return std::nullopt;
    std::optional<Message> message = std::move(_core->messages.front());
    _core->messages.pop_front();
    _core->bytes -= message->payload.size();
    eventfd_t ignored = 0;
    if (_core->messages.empty())
        eventfd_read(_core->event, &ignored);
    return message;
}

int Mqtt::descriptor() const
{
    return _core->event;
}

bool Mqtt::publish(const std::string& topic, std::string_view payload, bool isRetained)
{
    const int rc = _core->isConnected
                       ? mosquitto_publish(_core->client.get(), nullptr, topic.c_str(),
                                           static_cast<int>(payload.size()), payload.data(),
                                           at_least_once, isRetained)
                       : MOSQ_ERR_NO_CONN;
    return rc == MOSQ_ERR_SUCCESS || _core->fail("cannot publish", rc);
}

bool Mqtt::isConnected() const
{
    return _core->isConnected;
}

long long Mqtt::overflowed() const
{
    const std::lock_guard<std::mutex> lock(_core->mutex);
    return _core->overflowed;
}

std::string Mqtt::error() const
{
    const std::lock_guard<std::mutex> lock(_core->mutex);
    return _core->error;
}
