#ifndef TAMREL_IO_HASHBASE_H_
#define TAMREL_IO_HASHBASE_H_

#include <string>

// A digest fed by a data sink with every byte it stores, judged at the end
// against the digest the server announced. Used on one thread only.
class hashbase {
 public:
  virtual ~hashbase() = default;
  // Finishes the digest and compares it with the expected text (exact bytes).
  virtual bool matches() = 0;
  // Feeds bytes, in the order they are stored.
  virtual void write(char const* data, unsigned int length) = 0;
  // The digest of everything fed so far as lowercase hex; finishes the digest.
  virtual std::string hash() = 0;

  // Lowercase hex text of `length` raw bytes, two digits each.
  static std::string toHex(unsigned char const* bytes, unsigned int length);
};

#endif  // TAMREL_IO_HASHBASE_H_
