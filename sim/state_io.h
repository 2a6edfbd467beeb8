// One description of every record serves both directions: io(Io&, T&)
// names each field once, and Io either writes it into a JSON object or
// reads it back, remembering the first problem with its path. A family
// whose data is saved declares io(Io&, T&) for its records next to them
// (found by argument-dependent lookup); the state file and the backup
// archives are both written this way.
#ifndef TQSIM_STATE_IO_H
#define TQSIM_STATE_IO_H

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "json.h"
#include "util.h"

namespace tqsim {

class Io {
 public:
  Io(Json &node, bool loading, std::string &error, std::string path)
      : node_(node), loading_(loading), error_(error), path_(std::move(path)) {
    if (loading_ && !node_.is_null() && !node_.as_object()) fail("expected an object");
    if (!loading_ && node_.is_null()) node_ = Json::object();
  }

  bool loading() const { return loading_; }
  void fail(std::string_view what) { fail_at(path_, what); }
  void fail_at(const std::string &path, std::string_view what) {
    if (error_.empty()) error_ = (path.empty() ? std::string("(top)") : path) + ": " + std::string(what);
  }

  template <std::integral T>
  void field(const char *key, T &v) {
    if (!loading_) {
      node_[key] = Json(v);
      return;
    }
    const Json *j = member(key);
    if (!j) return;
    if (auto n = j->as_int<T>())
      v = *n;
    else
      fail_at(at(key), "expected an integer in range");
  }

  void field(const char *key, std::string &v) {
    if (!loading_) {
      node_[key] = Json(v);
      return;
    }
    const Json *j = member(key);
    if (!j) return;
    if (const std::string *s = j->as_string())
      v = *s;
    else
      fail_at(at(key), "expected a string");
  }

  // A nested record.
  template <class T>
  void record(const char *key, T &v) {
    Json *j = child(key);
    if (!j) return;
    Io sub(*j, loading_, error_, at(key));
    io(sub, v);
  }

  // An array of records or numbers.
  // On loading, every element starts as proto.
  template <class T>
  void list(const char *key, std::vector<T> &v, const T &proto = T{}) {
    Json *j = child(key, true);
    if (!j) return;
    if (!loading_) {
      for (T &x : v) {
        Json e;
        put(e, x, "");
        j->push_back(std::move(e));
      }
      return;
    }
    Json::Array *a = j->as_array();
    if (!a) return fail_at(at(key), "expected an array");
    v.assign(a->size(), proto);
    for (std::size_t i = 0; i < a->size(); ++i) put((*a)[i], v[i], at(key) + format("[%zu]", i));
  }

  // Records by id, kept as an array of records.
  template <class T>
  void by_id(const char *key, std::map<uint32_t, T> &m) {
    std::vector<T> v;
    if (!loading_)
      for (auto &[id, x] : m) v.push_back(x);
    list(key, v);
    if (!loading_) return;
    m.clear();
    for (T &x : v)
      if (!m.emplace(x.id, std::move(x)).second) fail(format("id %u appears twice", x.id));
  }

  // A fixed-size array of numbers kept as a JSON array; on loading, what
  // fits is taken (a shorter array leaves the rest as it was).
  template <std::integral T, std::size_t N>
  void numbers(const char *key, std::array<T, N> &a) {
    std::vector<T> v(a.begin(), a.end());
    list(key, v);
    if (loading_) std::copy_n(v.begin(), std::min(v.size(), N), a.begin());
  }

  void attributes(const char *key, std::map<std::string, std::string> &attrs) {
    Json *j = child(key);
    if (!j) return;
    if (!loading_) {
      for (auto &[k, val] : attrs) (*j)[k] = Json(val);
      return;
    }
    for (const auto &[k, val] : *j->as_object()) {
      if (const std::string *s = val.as_string())
        attrs[k] = *s;
      else
        fail_at(at(key) + "." + k, "expected a string");
    }
  }

 private:
  std::string at(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
  }
  const Json *member(const char *key) const { return node_.find(key); }
  // The member to write into, or to read from (null when absent).
  Json *child(const char *key, bool array = false) {
    if (!loading_) {
      Json &j = node_[key];
      j = array ? Json::array() : Json::object();
      return &j;
    }
    Json *j = node_.find(key);
    if (j && !array && !j->as_object()) {
      fail_at(at(key), "expected an object");
      return nullptr;
    }
    return j;
  }
  template <class T>
  void put(Json &j, T &x, std::string path) {
    if constexpr (std::integral<T>) {
      if (!loading_) {
        j = Json(x);
      } else if (auto n = j.as_int<T>()) {
        x = *n;
      } else {
        fail_at(path, "expected an integer in range");
      }
    } else {
      Io sub(j, loading_, error_, std::move(path));
      io(sub, x);
    }
  }

  Json &node_;
  bool loading_;
  std::string &error_;
  std::string path_;
};

}  // namespace tqsim

#endif
