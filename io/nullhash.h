#ifndef TAMREL_IO_NULLHASH_H_
#define TAMREL_IO_NULLHASH_H_

#include <string>

#include "io/hashbase.h"

// Accepts everything: the hasher of JSON bodies, which carry no digest.
class nullhash : public hashbase {
 public:
  bool matches() override { return true; }
  void write(char const*, unsigned int) override {}
  std::string hash() override { return "deadbeef"; }
};

#endif  // TAMREL_IO_NULLHASH_H_
