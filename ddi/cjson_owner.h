#ifndef TAMREL_DDI_CJSON_OWNER_H_
#define TAMREL_DDI_CJSON_OWNER_H_

#include <cjson/cJSON.h>

#include <memory>
#include <string>

// Owns one cJSON tree or one printed text, released on every way out of the
// scope that made it, exceptions included. Move-only.
template <typename T, void (*Release)(T*)>
class cjson_owner {
 public:
  cjson_owner() = default;
  explicit cjson_owner(T* owned) : owned_(owned) {}
  cjson_owner(cjson_owner&& other) noexcept : owned_(other.owned_) { other.owned_ = nullptr; }
  cjson_owner& operator=(cjson_owner&& other) noexcept {
    if (this != &other) {
      reset();
      owned_ = other.owned_;
      other.owned_ = nullptr;
    }
    return *this;
  }
  cjson_owner(cjson_owner const&) = delete;
  cjson_owner& operator=(cjson_owner const&) = delete;
  ~cjson_owner() { reset(); }

  T* get() const { return owned_; }
  explicit operator bool() const { return owned_ != nullptr; }
  void reset() {
    if (owned_ != nullptr) Release(owned_);
    owned_ = nullptr;
  }

 private:
  T* owned_ = nullptr;
};

namespace cjson_detail {
inline void releaseText(char* text) { cJSON_free(text); }
}  // namespace cjson_detail

using cjson_tree = cjson_owner<cJSON, cJSON_Delete>;
using cjson_text = cjson_owner<char, cjson_detail::releaseText>;

// Prints a tree compactly into a std::string ("" when printing fails).
inline std::string printUnformatted(cjson_tree const& tree) {
  cjson_text text(cJSON_PrintUnformatted(tree.get()));
  return text ? std::string(text.get()) : std::string();
}

#endif  // TAMREL_DDI_CJSON_OWNER_H_
