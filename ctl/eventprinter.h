#ifndef TAMREL_CTL_EVENTPRINTER_H_
#define TAMREL_CTL_EVENTPRINTER_H_

#include <cstdio>
#include <string>

// How tamrel-ctl shows what the agent sends: the status as a readable
// summary, events one line each; on a terminal, events that carry a
// "percent" redraw one progress bar instead of adding lines.
class EventPrinter {
 public:
  EventPrinter(std::FILE* out, bool terminal);

  // The status answer's "status" object, a line per member; false when
  // `json` is not an object.
  bool status(std::string const& json);
  // One event line as the agent sent it; false when it is not an event.
  bool event(std::string const& json);
  // Ends a progress bar left on screen.
  void finish();

 private:
  std::FILE* out_;
  bool terminal_;
  bool live_ = false;  // a progress bar is on screen, its line not ended
};

#endif  // TAMREL_CTL_EVENTPRINTER_H_
