#ifndef TAMREL_PROPERTIES_VALUE_CONTAINER_H_
#define TAMREL_PROPERTIES_VALUE_CONTAINER_H_

#include <cstdint>
#include <string>

#include "properties/simple_signal.h"

// A property value that stands for a text held elsewhere, typically a file:
// `target` names the source (the file), `text` is the value the library uses.
struct link_t {
  std::string target;
  std::string text;

  operator std::string() const { return text; }
  operator std::string const&() const { return text; }
  bool operator==(link_t const& other) const {
    return target == other.target && text == other.text;
  }
  bool operator!=(link_t const& other) const { return !(*this == other); }
};

// One typed property value: a boolean, a string, an integer, a link, or
// nothing. All four value fields always exist; the type says which one is
// meant. Assignments that really change the value (or its type) emit `changed`.
//
// Not thread-safe: a container must not be assigned from two threads at once,
// nor read while another thread assigns it. Shared by std::shared_ptr, never
// copied (it owns the mutex of its signal).
class value_container {
 public:
  enum class type : std::int32_t { none = 0, boolean = 1, string = 2, integer = 3, link = 4 };

  value_container(bool b, std::string const& s, int i, link_t const& l, type t)
      : booleanValue_(b), stringValue_(s), integerValue_(i), kind_(t), linkValue_(l) {}
  value_container() : value_container(false, std::string(), 0, link_t{}, type::none) {}
  value_container(bool b) : value_container(b, std::string(), 0, link_t{}, type::boolean) {}
  value_container(std::string const& s) : value_container(false, s, 0, link_t{}, type::string) {}
  // A null pointer throws std::logic_error (from std::string).
  value_container(char const* s)
      : value_container(false, std::string(s), 0, link_t{}, type::string) {}
  value_container(int i) : value_container(false, std::string(), i, link_t{}, type::integer) {}
  value_container(link_t const& l) : value_container(false, std::string(), 0, l, type::link) {}

  value_container(value_container const&) = delete;
  value_container& operator=(value_container const&) = delete;

  bool valid() const { return kind_ != type::none; }
  bool is_boolean() const { return kind_ == type::boolean; }
  bool is_string() const { return kind_ == type::string; }
  bool is_integer() const { return kind_ == type::integer; }
  bool is_link() const { return kind_ == type::link; }
  type value_type() const { return kind_; }

  // Field access, never checking the type. Writes through the references
  // change neither the type nor notify.
  bool boolean() const { return booleanValue_; }
  bool& boolean() { return booleanValue_; }
  operator bool() const { return booleanValue_; }
  int integer() const { return integerValue_; }
  int& integer() { return integerValue_; }
  operator int() const { return integerValue_; }
  std::string const& string() const { return stringValue_; }
  std::string& string() { return stringValue_; }
  operator std::string const&() const { return stringValue_; }
  operator std::string&() { return stringValue_; }
  operator std::string() const { return stringValue_; }
  operator char const*() const { return stringValue_.c_str(); }
  link_t const& link() const { return linkValue_; }
  link_t& link() { return linkValue_; }
  operator link_t const&() const { return linkValue_; }
  operator link_t&() { return linkValue_; }
  operator link_t() const { return linkValue_; }

  value_container& operator=(bool b) { return assign(booleanValue_, b, type::boolean); }
  value_container& operator=(int i) { return assign(integerValue_, i, type::integer); }
  value_container& operator=(std::string const& s) { return assign(stringValue_, s, type::string); }
  value_container& operator=(char const* s) {
    return assign(stringValue_, std::string(s), type::string);
  }
  value_container& operator=(link_t const& l) { return assign(linkValue_, l, type::link); }

  simple_signal::signal<value_container&> changed;

 private:
  // Stores `value` into `field`; notifies unless the type already was `kind`
  // and the field already held an equal value.
  template <typename T>
  value_container& assign(T& field, T const& value, type kind) {
    bool const same = kind_ == kind && field == value;
    field = value;
    if (same) return *this;
    kind_ = kind;
    changed(*this);
    return *this;
  }

  bool booleanValue_;
  std::string stringValue_;
  int integerValue_;
  type kind_;
  link_t linkValue_;
};

#endif  // TAMREL_PROPERTIES_VALUE_CONTAINER_H_
