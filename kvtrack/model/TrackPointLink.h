#pragma once
// A typed link of a waypoint (GPX "link" with its "type").

#include <string>

namespace kvtrack {

class TrackPointLink {
 public:
  const std::string& type() const { return type_; }
  void setType(std::string type) { type_ = std::move(type); }
  const std::string& url() const { return url_; }
  void setUrl(std::string url) { url_ = std::move(url); }

 private:
  std::string type_;
  std::string url_;
};

}  // namespace kvtrack
