#include "agent/control/controlchannel.h"

#include <ctime>
#include <utility>

#include "agent/base/console.h"
#include "agent/base/jsontext.h"

ControlChannel::ControlChannel(std::size_t kept) : kept_(kept == 0 ? 1 : kept) {}

void ControlChannel::set(std::string const& key, std::string const& json) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (json.empty())
    status_.erase(key);
  else
    status_[key] = json;
}

void ControlChannel::publish(std::string const& name, std::string const& members) {
  std::function<void()> wake;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    auto const state = status_.find("state");
    std::string line = "{\"time\":\"" + Console::utcTime(std::time(nullptr)) +
                       "\",\"event\":" + JsonText::quoted(name) +
                       ",\"state\":" + (state == status_.end() ? "null" : state->second);
    if (!members.empty()) line += "," + members;
    line += "}";
    events_.push_back(std::move(line));
    if (events_.size() > kept_) events_.pop_front();
    ++next_;
    wake = wakeSocket_;
  }
  if (wake) wake();
}

void ControlChannel::await(std::string const& action, std::string const& what) {
  std::lock_guard<std::mutex> hold(mutex_);
  waitingAction_ = what.empty() ? "" : action;
  waitingFor_ = what;
}

std::deque<ControlRequest> ControlChannel::take() {
  std::lock_guard<std::mutex> hold(mutex_);
  return std::exchange(requests_, {});
}

void ControlChannel::onRequest(std::function<void()> wake) {
  std::lock_guard<std::mutex> hold(mutex_);
  wakeLoop_ = std::move(wake);
}

std::string ControlChannel::status() const {
  std::lock_guard<std::mutex> hold(mutex_);
  std::string line = "{\"protocol\":" + std::to_string(kProtocol);
  for (auto const& [key, json] : status_) line += "," + JsonText::quoted(key) + ":" + json;
  if (!waitingFor_.empty())
    line += ",\"waiting\":{\"action\":" + JsonText::quoted(waitingAction_) +
            ",\"for\":" + JsonText::quoted(waitingFor_) + "}";
  return line + "}";
}

std::string ControlChannel::request(ControlRequest request) {
  std::function<void()> wake;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    bool const answers = request.kind == ControlRequest::Kind::kConsent ||
                         request.kind == ControlRequest::Kind::kPermit;
    if (answers) {
      std::string const what =
          request.kind == ControlRequest::Kind::kConsent ? "consent" : request.permit;
      if (waitingFor_ != what || waitingAction_ != request.action)
        return "action " + request.action + " is not waiting for " + what;
    }
    requests_.push_back(std::move(request));
    // A UI cannot fill the loop's queue: it is taken at every wait.
    if (requests_.size() > 64) requests_.pop_front();
    wake = wakeLoop_;
  }
  if (wake) wake();
  return "";
}

std::uint64_t ControlChannel::events(std::uint64_t from, std::size_t max,
                                     std::vector<std::string>& out, std::uint64_t& dropped) const {
  std::lock_guard<std::mutex> hold(mutex_);
  std::uint64_t const first = next_ - events_.size();
  if (from < first) {
    dropped += first - from;
    from = first;
  }
  for (; from < next_ && max > 0; ++from, --max) out.push_back(events_[from - first]);
  return from;
}

std::uint64_t ControlChannel::next() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return next_;
}

void ControlChannel::onEvent(std::function<void()> wake) {
  std::lock_guard<std::mutex> hold(mutex_);
  wakeSocket_ = std::move(wake);
}
