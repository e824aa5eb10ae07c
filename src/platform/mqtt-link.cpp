// Locking: the outbox's mutex is a leaf; no function of the MQTT library is called under it. That
// library is used by the link's thread alone.
#include "platform/mqtt-link.h"

#include "platform/handles.h"
#include "platform/log.h"

#include <glib.h>
#include <mosquitto.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int keepalive_s = 60;
/// How late the library may notice that it is time for a sign of life.
constexpr milliseconds patience{10'000};
/// How long the link waits before it looks for a broker again: longer each time.
constexpr milliseconds first_rest{500};
constexpr milliseconds longest_rest{30'000};
/// What the end of the process may take for what is still to be said.
constexpr milliseconds farewell{300};
/// A broker that has acknowledged none of so many messages is told no more until it does.
constexpr int most_unacknowledged = 16;
/// More than a broker that keeps up ever leaves.
constexpr std::size_t most_waiting = 1000;
/// At least once: what is told twice is the same state.
constexpr int quality_of_service = 1;

struct Message {
  std::string topic;
  std::string text;
  bool retained;
};

std::string place_of(const MqttSettings& settings) {
  const bool socket = settings.host.starts_with('/');
  return socket ? settings.host : settings.host + ':' + std::to_string(settings.port);
}

const char* error_text(int result) {
  return result == MOSQ_ERR_ERRNO ? g_strerror(errno) : mosquitto_strerror(result);
}

} // namespace

struct MqttLink::Outbox {
  const MqttSettings settings;
  const std::string place = place_of(settings);
  /// Readable when there is something to do for a thread that waits for the broker.
  const UniqueFd wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

  std::mutex mutex = {};
  std::condition_variable changed = {};
  std::map<std::string, std::string> states = {};
  std::deque<Message> waiting = {};
  bool connected = false;
  bool fell_behind = false;
  /// Set once; by then the thread is to be done.
  std::optional<Clock::time_point> end = std::nullopt;
  bool ended = false;

  void ring() const { std::ignore = eventfd_write(wake.get(), 1); }

  void tell_everything_locked() {
    waiting.clear();
    for (const auto& [topic, text] : states) {
      waiting.push_back(Message{.topic = topic, .text = text, .retained = true});
    }
  }

  void add_locked(Message message) {
    if (!connected) {
      return;
    }
    waiting.push_back(std::move(message));
    if (waiting.size() > most_waiting) {
      tell_everything_locked();
      if (!std::exchange(fell_behind, true)) {
        g_warning("%sThe broker at %s falls behind, telling it the latest states only", log_prefix,
                  place.c_str());
      }
    }
    ring();
  }

  void begin() {
    const std::lock_guard guard(mutex);
    connected = true;
    fell_behind = false;
    tell_everything_locked();
  }

  void break_off() {
    const std::lock_guard guard(mutex);
    connected = false;
    waiting.clear();
  }

  std::optional<Message> next() {
    const std::lock_guard guard(mutex);
    if (waiting.empty()) {
      return std::nullopt;
    }
    auto message = std::move(waiting.front());
    waiting.pop_front();
    return message;
  }

  std::optional<Clock::time_point> end_time() {
    const std::lock_guard guard(mutex);
    return end;
  }

  bool has_waiting() {
    const std::lock_guard guard(mutex);
    return !waiting.empty();
  }

  /// False when it is time to end instead.
  bool rest(milliseconds duration) {
    std::unique_lock guard(mutex);
    return !changed.wait_for(guard, duration, [this] { return end.has_value(); });
  }
};

/// The thread's side of the link.
class MqttLink::Session {
public:
  explicit Session(Outbox& outbox) : outbox_(outbox) {
    // What encrypts is in use by this thread until it ends, which is after the process has begun
    // to.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    mosquitto_lib_init();
  }
  ~Session() {
    handle_.reset();
    mosquitto_lib_cleanup();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void run() {
    if (!prepare()) {
      return;
    }
    do {
      meet_broker();
      outbox_.break_off();
    } while (outbox_.rest(std::exchange(rest_, std::min(2 * rest_, longest_rest))));
  }

private:
  bool prepare() {
    const auto& settings = outbox_.settings;
    handle_.reset(mosquitto_new(nullptr, true, this));
    if (handle_ == nullptr) {
      complain(g_strerror(errno));
      return false;
    }
    mosquitto_connect_callback_set(handle_.get(), on_answer);
    mosquitto_publish_callback_set(handle_.get(), on_acknowledged);
    const std::string status = settings.prefix + "/status";
    int result =
        mosquitto_will_set(handle_.get(), status.c_str(), 7, "offline", quality_of_service, true);
    if (result == MOSQ_ERR_SUCCESS && !settings.user.empty()) {
      result = mosquitto_username_pw_set(handle_.get(), settings.user.c_str(),
                                         settings.password.c_str());
    }
    if (result == MOSQ_ERR_SUCCESS && !settings.ca_file.empty()) {
      result = mosquitto_tls_set(handle_.get(), settings.ca_file.c_str(), nullptr, nullptr, nullptr,
                                 nullptr);
    }
    if (result != MOSQ_ERR_SUCCESS) {
      complain(error_text(result));
    }
    return result == MOSQ_ERR_SUCCESS;
  }

  // From the first attempt until the broker is lost, or the process ends.
  void meet_broker() {
    const auto& settings = outbox_.settings;
    const bool socket = settings.host.starts_with('/');
    refusal_.clear();
    int result = mosquitto_connect(handle_.get(), settings.host.c_str(), socket ? 0 : settings.port,
                                   keepalive_s);
    while (result == MOSQ_ERR_SUCCESS && !is_done()) {
      result = wait_for_broker();
      if (result == MOSQ_ERR_SUCCESS) {
        result = publish_waiting();
      }
    }
    if (result != MOSQ_ERR_SUCCESS) {
      complain(refusal_.empty() ? error_text(result) : refusal_.c_str());
    }
  }

  int wait_for_broker() {
    const bool writes = mosquitto_want_write(handle_.get());
    std::array polled{
        pollfd{.fd = mosquitto_socket(handle_.get()),
               .events = static_cast<short>(POLLIN | (writes ? POLLOUT : 0)),
               .revents = 0},
        pollfd{.fd = outbox_.wake.get(), .events = POLLIN, .revents = 0},
    };
    std::ignore = poll(polled.data(), polled.size(), static_cast<int>(timeout().count()));
    eventfd_t rings = 0;
    std::ignore = eventfd_read(outbox_.wake.get(), &rings);

    int result = MOSQ_ERR_SUCCESS;
    if ((polled[0].revents & ~POLLOUT) != 0) {
      // One record of an encrypted connection may hold as many acknowledgements.
      result = mosquitto_loop_read(handle_.get(), std::max(unacknowledged_, 1));
    }
    if (result == MOSQ_ERR_SUCCESS && (polled[0].revents & POLLOUT) != 0) {
      result = mosquitto_loop_write(handle_.get(), 1);
    }
    return result == MOSQ_ERR_SUCCESS ? mosquitto_loop_misc(handle_.get()) : result;
  }

  int publish_waiting() {
    while (unacknowledged_ < most_unacknowledged && !mosquitto_want_write(handle_.get())) {
      const auto message = outbox_.next();
      if (!message) {
        break;
      }
      const int result = mosquitto_publish(
          handle_.get(), nullptr, message->topic.c_str(), static_cast<int>(message->text.size()),
          message->text.data(), quality_of_service, message->retained);
      if (result == MOSQ_ERR_SUCCESS) {
        unacknowledged_++;
      } else if (result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST) {
        return result;
      } else {
        g_warning("%sFailed to publish %s: %s", log_prefix, message->topic.c_str(),
                  error_text(result));
      }
    }
    return MOSQ_ERR_SUCCESS;
  }

  milliseconds timeout() {
    const auto end = outbox_.end_time();
    if (!end) {
      return patience;
    }
    const auto left = std::chrono::ceil<milliseconds>(*end - Clock::now());
    return std::clamp(left, milliseconds::zero(), patience);
  }

  bool is_done() {
    const auto end = outbox_.end_time();
    return end
           && (Clock::now() >= *end
               || (answered_ && unacknowledged_ == 0 && !outbox_.has_waiting()));
  }

  // Once for each absence: a broker may be away for weeks.
  void complain(const char* reason) {
    if (std::exchange(answered_, false) || !complained_) {
      complained_ = true;
      g_warning("%sThe broker at %s cannot be told of events: %s", log_prefix,
                outbox_.place.c_str(), reason);
    }
  }

  static void on_answer(mosquitto* /*handle*/, void* user_data, int code) {
    auto* const self = static_cast<Session*>(user_data);
    if (code != 0) {
      self->refusal_ = mosquitto_connack_string(code);
      return;
    }
    self->answered_ = true;
    self->rest_ = first_rest;
    self->outbox_.begin();
    g_message("%sTelling the broker at %s of events, as %s", log_prefix,
              self->outbox_.place.c_str(), self->outbox_.settings.prefix.c_str());
  }

  static void on_acknowledged(mosquitto* /*handle*/, void* user_data, int /*message*/) {
    static_cast<Session*>(user_data)->unacknowledged_--;
  }

  Outbox& outbox_;
  std::unique_ptr<mosquitto, FreeWith<mosquitto_destroy>> handle_;
  milliseconds rest_ = first_rest;
  /// What the library was given and still repeats, to the next broker if need be.
  int unacknowledged_ = 0;
  bool answered_ = false;
  bool complained_ = false;
  /// Why the broker turned us away, if it did.
  std::string refusal_;
};

// No signal of the process is for this thread, and a broker that goes while it is written to is no
// reason to end.
void* MqttLink::run(void* data) {
  const std::unique_ptr<std::shared_ptr<Outbox>> own(static_cast<std::shared_ptr<Outbox>*>(data));
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  Outbox& outbox = **own;
  Session(outbox).run();
  const std::lock_guard guard(outbox.mutex);
  outbox.ended = true;
  outbox.changed.notify_all();
  return nullptr;
}

MqttLink::MqttLink(MqttSettings settings) : outbox_(new Outbox{.settings = std::move(settings)}) {
  outbox_->states.emplace(outbox_->settings.prefix + "/status", "online");
  g_autoptr(GError) error = nullptr;
  auto own = std::make_unique<std::shared_ptr<Outbox>>(outbox_);
  thread_ = g_thread_try_new("mqtt", run, own.get(), &error);
  if (thread_ == nullptr) {
    g_warning("%sNo broker is told of events: %s", log_prefix, error->message);
    return;
  }
  std::ignore = own.release();
}

// A thread that the network holds, while it looks a name up for instance, is left behind.
MqttLink::~MqttLink() {
  if (thread_ == nullptr) {
    return;
  }
  std::unique_lock guard(outbox_->mutex);
  outbox_->end = Clock::now() + farewell;
  outbox_->changed.notify_all();
  outbox_->ring();
  outbox_->changed.wait_for(guard, farewell + farewell, [this] { return outbox_->ended; });
  const bool ended = outbox_->ended;
  guard.unlock();
  if (ended) {
    g_thread_join(thread_);
  } else {
    g_thread_unref(thread_);
  }
}

void MqttLink::set_state(std::string topic, std::string text) {
  const std::lock_guard guard(outbox_->mutex);
  outbox_->states[topic] = text;
  outbox_->add_locked(
      Message{.topic = std::move(topic), .text = std::move(text), .retained = true});
}

void MqttLink::tell(std::string topic, std::string text) {
  const std::lock_guard guard(outbox_->mutex);
  outbox_->add_locked(
      Message{.topic = std::move(topic), .text = std::move(text), .retained = false});
}
