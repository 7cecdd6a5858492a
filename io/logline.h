#ifndef TAMREL_IO_LOGLINE_H_
#define TAMREL_IO_LOGLINE_H_

// Formats a printf-style message and writes it to standard error in a single
// call, so lines from several threads do not interleave. No level filter, no
// time stamp, no buffering of its own: the format carries tag and newline.
void logLine(char const* format, ...) __attribute__((format(printf, 1, 2)));

#endif  // TAMREL_IO_LOGLINE_H_
