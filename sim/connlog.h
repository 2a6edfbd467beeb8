// The simulator's connection log: generated connections in table `connlog`
// of the statistics store's SQLite database, searched by indexed,
// parameterised queries.
//
//   connlog(id, start, end, day, family, protocol, client, server,
//           clientport, serverport, bytes_in, bytes_out, service,
//           serverhostname, netobject, natclient, natclientport, natserver,
//           natserverport, vnos)
//
// Addresses are kept as canonical texts (inet_ntop), "" for no NAT; vnos as
// "1,5". The table is made on the first connection-log request, from the
// statistics seed, over the statistics store's days.
#ifndef TQSIM_CONNLOG_H
#define TQSIM_CONNLOG_H

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tqdb_api_connlog.h"

namespace tqsim {

using ConnlogFilter = tqdb_api_connlog_filter_t;

struct ConnlogRow {
  uint32_t start = 0, end = 0;
  uint8_t family = 0, protocol = 0;
  std::string client, server;
  uint16_t clientport = 0, serverport = 0;
  uint64_t bytes_in = 0, bytes_out = 0;
  std::string service, serverhostname;
  uint32_t netobject = 0;
  std::string natclient;
  uint16_t natclientport = 0;
  std::string natserver;
  uint16_t natserverport = 0;
  std::vector<uint32_t> vnos;
};

struct ConnlogSearch {
  std::vector<ConnlogRow> rows;
  uint32_t total = 0;
  std::vector<uint64_t> matches;  // per condition given, in filter order
  uint64_t searched_from = 0, searched_to = 0;
  bool complete = true;
  uint32_t elapsed_ms = 0;
  std::vector<std::string> warnings;
};

class Connlog {
 public:
  // The log in db, generated first when it is not there yet. time_limit_ms
  // bounds every query of one request.
  Connlog(sqlite3 *db, uint64_t seed, uint32_t entries, uint32_t time_limit_ms);
  // Empty when the log could be made, else why not.
  const std::string &fault() const { return fault_; }

  // false with why (a person can act on it) when the filter is refused or
  // SQLite failed.
  bool search(const ConnlogFilter &f, ConnlogSearch &out, std::string &why);
  bool count(const ConnlogFilter &f, uint64_t &n, std::string &why);
  bool services(std::string_view day, std::vector<std::string> &out, std::string &why);
  bool days(std::vector<std::string> &out, std::string &why);

 private:
  sqlite3 *db_;
  uint32_t time_limit_ms_;
  std::string fault_;
};

// A filter read in wire order; false when the body is short.
class Body;
bool read_connlog_filter(Body &in, ConnlogFilter &f);

}  // namespace tqsim

#endif
