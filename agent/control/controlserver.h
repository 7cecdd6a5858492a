#ifndef TAMREL_AGENT_CONTROL_CONTROLSERVER_H_
#define TAMREL_AGENT_CONTROL_CONTROLSERVER_H_

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "agent/control/controlchannel.h"
#include "agent/control/controlsocketfile.h"

// The control socket: serves a ControlChannel to local clients (a device's
// UI, tamrel-ctl) on a thread of its own, one request a line, one answer a
// line (ControlProtocol). Whatever the clients do, it stays bounded: at
// most `clients` at once, request lines of ControlProtocol::kMaxLine, and
// an output buffer of `buffer` bytes per client. A watcher that does not
// read is never waited for: it takes events from the channel only while
// its buffer has room, and is told how many it missed.
class ControlServer {
 public:
  struct Settings {
    std::string path;
    gid_t group = 0;
    std::size_t clients = 16;
    std::size_t buffer = 64 * 1024;
  };

  explicit ControlServer(ControlChannel& channel);
  ~ControlServer();  // stops
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

  // Creates the socket and starts serving; "" when it does, else why not.
  std::string start(Settings const& settings);
  // Closes every client and removes the socket.
  void stop();

 private:
  struct Client;
  class Wake;

  void serve();
  void accept();
  // Reads what `client` sent and answers its whole lines; false when it
  // is to be closed.
  bool receive(Client& client);
  // Answers the whole lines received while its output buffer has room.
  void answerLines(Client& client);
  void answer(Client& client, std::string const& line);
  // Moves events from the channel into a watcher's buffer while it has room.
  void feed(Client& client);
  // Sends what the buffer holds; false when the client is gone.
  bool flush(Client& client);

  ControlChannel& channel_;
  Settings settings_;
  ControlSocketFile socket_;
  std::shared_ptr<Wake> wake_;
  std::list<Client> clients_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

#endif  // TAMREL_AGENT_CONTROL_CONTROLSERVER_H_
