#include "agent/server/linkconcealer.h"

#include "agent/server/linkorigin.h"

std::string LinkConcealer::concealed(std::string const& url) {
  if (url.find('?') == std::string::npos) return url;
  std::string const shown = shownLink(url);
  std::lock_guard<std::mutex> guard(lock_);
  std::string standIn = shown;
  for (int n = 2;; ++n) {
    auto const known = links_.find(standIn);
    if (known == links_.end()) break;
    if (known->second == url) return standIn;
    standIn = shown + "#" + std::to_string(n);
  }
  links_[standIn] = url;
  return standIn;
}

std::string LinkConcealer::revealed(std::string const& link) const {
  std::lock_guard<std::mutex> guard(lock_);
  auto const known = links_.find(link);
  return known != links_.end() ? known->second : link;
}

void LinkConcealer::forget() {
  std::lock_guard<std::mutex> guard(lock_);
  links_.clear();
}
