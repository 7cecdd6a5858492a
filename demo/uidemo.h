#ifndef TAMREL_DEMO_UIDEMO_H_
#define TAMREL_DEMO_UIDEMO_H_

#include <string>

// What a device UI sees: `tamrel-ctl watch` on the agent's control socket,
// each of its lines printed as "ui| ...", and the consent the UI gives with
// `tamrel-ctl consent` once the watcher shows that the action waits for it.
class UiDemo {
 public:
  // One deployment in `dir`; true when the watcher saw the action closed
  // with success and the server got the confirmation.
  static bool run(std::string const& dir);

 private:
  // The tamrel-ctl built beside this program.
  static std::string ctlPath();
};

#endif  // TAMREL_DEMO_UIDEMO_H_
