// The appliance's file areas (one per FILESERV_ID_* type) and its backups
// area, and the uploads in progress into them.
//
// An area is a directory under --data DIR (one subdirectory per area, named
// as the area; files replaced atomically) or, without --data, a map in
// memory. Names are checked before they reach either: not empty, at most
// 255 bytes, no '/', no "..", no NUL, not ".".
//
// An upload collects its chunks in memory and writes the file only at its
// finish message, so a file is either absent or whole. Uploads belong to
// the connection of the session that started them and go with it. A connection has at most
// kMaxUploads in progress, and no upload grows past --max-file-bytes.
//
// The request handlers are shared by the file service (whose requests name
// the area by its u32 type first) and the backups (one area, named by
// nothing): each family's routes pick the shape.
#ifndef TQSIM_FILES_H
#define TQSIM_FILES_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dispatch.h"

namespace tqsim {

struct Options;
class Out;

// File service and backup request codes.
enum : uint32_t {
  kReqFileList = 0x1A201,
  kReqFileRemove = 0x1A202,
  kReqFileDownload = 0x1A203,
  kReqFileUploadStart = 0x1A204,
  kReqFileUploadFinish = 0x1A205,
  kReqFileUploadData = 0x1A206,
  kReqFileTypes = 0x1A207,
  kReqFileUploadAbort = 0x1A600,
  kReqFileUsage = 0x1A601,
  kReqBackupList = 0x19F01,
  kReqBackupDownload = 0x19F02,
  kReqBackupUploadStart = 0x19F03,
  kReqBackupDump = 0x19F04,
  kReqBackupRestore = 0x19F05,
  kReqBackupRemove = 0x19F06,
  kReqBackupUploadData = 0x19F07,
  kReqBackupUploadFinish = 0x19F08,
  kReqBackupUploadAbort = 0x19F09,
};

// Type record flags.
enum : uint32_t { kAreaWritable = 1, kAreaDownloadable = 2 };

inline constexpr std::size_t kMaxNameBytes = 255;
inline constexpr std::size_t kMaxChunkBytes = 4096;
inline constexpr std::size_t kMaxUploads = 16;  // per connection

struct AreaType {
  uint32_t id;
  const char *name;
  uint32_t flags;
};
// The FILESERV_ID_* areas by type id.
std::span<const AreaType> area_types();

struct FileInfo {
  std::string name;
  uint64_t size = 0;
  uint64_t mtime = 0;  // seconds since 1970
};

class Area {
 public:
  Area(const AreaType &type, std::string dir) : type_(type), dir_(std::move(dir)) {}
  const AreaType &type() const { return type_; }
  // By name.
  [[nodiscard]] bool list(std::vector<FileInfo> &out, std::string &why) const;
  [[nodiscard]] bool read(const std::string &name, std::string &out, std::string &why) const;
  [[nodiscard]] bool write(const std::string &name, std::string contents, uint64_t now,
                           std::string &why);
  [[nodiscard]] bool remove(const std::string &name, std::string &why);

 private:
  struct Stored {
    std::string contents;
    uint64_t mtime = 0;
  };
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  std::string missing(const std::string &name) const;

  AreaType type_;
  std::string dir_;  // empty: in memory
  std::map<std::string, Stored> memory_;
};

// An upload in progress: its chunks so far, written out at its finish.
struct Upload {
  uint32_t conn = 0;
  uint32_t session = 0;
  Area *area = nullptr;
  std::string name;
  std::string data;
};

// Every area of the simulator, and the uploads in progress; the server
// owns one and drops a connection's uploads when it closes.
struct Areas {
  explicit Areas(const Options &o);
  void drop_uploads_of(uint32_t conn);

  uint64_t max_file_bytes;
  std::vector<Area> files;
  std::unique_ptr<Area> backups;
  std::map<uint32_t, Upload> uploads;
  uint32_t next_upload = 1;
};

Out &put_u64(Out &o, uint64_t v);

// "" when name may name a file, else why not.
std::string name_problem(std::string_view name);

// How a family's requests name their area.
enum class Named { kByType, kBackups };

// The area a request is about, from the simulator's areas (made on first
// use from the options); answers ERROR and returns null when the type is
// unknown.
Area *area_of(Call &c, Named how);
Area &backup_area(Call &c);
// True when name may be written in area (the name checked, the area
// writable, the caller's account allowed to write the area's resource, 10
// "fileserv" or 8 "backups", and that resource not held by another
// session); else the refusal is answered and false returned.
bool may_write(Call &c, Named how, const Area &a, const std::string &name);
// The contents as a download answer: DATA messages of at most
// --max-reply-bytes, the first starting with the u32 size, then chunks,
// then OK.
void send_download(Call &c, const std::string &contents);

// Handlers shared by both families. A list record is written by put.
using PutFile = void (*)(Out &, const FileInfo &);
void area_list(Call &c, Named how, PutFile put);
void area_remove(Call &c, Named how);
void area_download(Call &c, Named how);
void upload_start(Call &c, Named how);
void upload_data(Call &c);
void upload_finish(Call &c, Named how);
void upload_abort(Call &c);

}  // namespace tqsim

#endif
