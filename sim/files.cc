#include "files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "answer.h"
#include "options.h"
#include "statefile.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "users.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kBoth = kAreaWritable | kAreaDownloadable;

// By FILESERV_ID_*. What the appliance produces (its MIBs, its manual, its
// packet captures) can be fetched and not written; a firmware image goes
// one way only.
constexpr AreaType kTypes[] = {
    {0, "hosttrigger", kBoth},         {1, "fwtrigger", kBoth},
    {2, "dhcp_snooper", kBoth},        {3, "radius_snooper", kBoth},
    {4, "sip_snooper", kBoth},         {5, "custom_snooper", kBoth},
    {6, "snmp_mib", kAreaDownloadable}, {7, "documentation", kAreaDownloadable},
    {8, "pcap_1", kAreaDownloadable},  {9, "pcap_2", kAreaDownloadable},
    {10, "firmware_upload", kAreaWritable},
};
constexpr AreaType kBackupType{0, "backups", kBoth};

Areas &areas(Call &c) { return c.hub.areas(); }

bool make_dir(const std::string &dir, std::string &why) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) why = "cannot create " + dir + ": " + ec.message();
  return !ec;
}

// The upload a data, finish or abort message names; null (answered) when
// this connection has none by that id.
Upload *upload_of(Call &c, uint32_t id) {
  Areas &all = areas(c);
  auto it = all.uploads.find(id);
  if (it != all.uploads.end() && it->second.conn == c.conn) return &it->second;
  c.error(format("No upload in progress with transfer id %u", id));
  return nullptr;
}

uint32_t resource_of(Named how) {
  return how == Named::kByType ? TQDB_RESOURCE_FILESERV : TQDB_RESOURCE_BACKUPS;
}

}  // namespace

std::span<const AreaType> area_types() { return kTypes; }

Areas::Areas(const Options &o) : max_file_bytes(o.max_file_bytes) {
  auto dir = [&](const AreaType &t) {
    return o.data_dir.empty() ? std::string() : o.data_dir + "/" + t.name;
  };
  for (const AreaType &t : kTypes) files.emplace_back(t, dir(t));
  backups = std::make_unique<Area>(kBackupType, dir(kBackupType));
  // A simulator killed while writing a file leaves its temporary file in
  // the area, where it would be listed as a file of its own.
  if (!o.data_dir.empty()) {
    for (const Area &a : files) remove_stale_temporaries(dir(a.type()));
    remove_stale_temporaries(dir(kBackupType));
  }
}

void Areas::drop_uploads_of(uint32_t conn) {
  std::erase_if(uploads, [&](const auto &entry) { return entry.second.conn == conn; });
}

Out &put_u64(Out &o, uint64_t v) {
  return o.u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}

std::string name_problem(std::string_view name) {
  if (name.empty()) return "A file name cannot be empty";
  if (name.size() > kMaxNameBytes)
    return format("A file name has at most %zu bytes, not %zu", kMaxNameBytes, name.size());
  if (name.find('\0') != std::string_view::npos) return "A file name cannot hold a NUL byte";
  if (name.find('/') != std::string_view::npos) return "A file name cannot hold '/'";
  if (name == "." || name.find("..") != std::string_view::npos)
    return "A file name cannot be '.' or hold '..'";
  return {};
}

std::string Area::missing(const std::string &name) const {
  return "No file '" + name + "' in the " + type_.name + " area";
}

bool Area::list(std::vector<FileInfo> &out, std::string &why) const {
  out.clear();
  if (dir_.empty()) {
    for (const auto &[name, f] : memory_) out.push_back({name, f.contents.size(), f.mtime});
    return true;
  }
  std::error_code ec;
  std::filesystem::directory_iterator it(dir_, ec), end;
  if (ec) {
    if (ec == std::errc::no_such_file_or_directory) return true;  // nothing written yet
    why = "cannot list " + dir_ + ": " + ec.message();
    return false;
  }
  for (; it != end; it.increment(ec)) {
    struct stat st {};
    if (::stat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    out.push_back({it->path().filename().string(), static_cast<uint64_t>(st.st_size),
                   static_cast<uint64_t>(st.st_mtime)});
  }
  std::ranges::sort(out, {}, &FileInfo::name);
  return true;
}

bool Area::read(const std::string &name, std::string &out, std::string &why) const {
  if (dir_.empty()) {
    auto it = memory_.find(name);
    if (it == memory_.end()) {
      why = missing(name);
      return false;
    }
    out = it->second.contents;
    return true;
  }
  bool absent = false;
  if (!load_file(path(name), out, absent, why)) return false;
  if (absent) why = missing(name);
  return !absent;
}

bool Area::write(const std::string &name, std::string contents, uint64_t now, std::string &why) {
  if (dir_.empty()) {
    memory_[name] = Stored{std::move(contents), now};
    return true;
  }
  return make_dir(dir_, why) && save_atomically(path(name), contents, why);
}

bool Area::remove(const std::string &name, std::string &why) {
  if (dir_.empty()) {
    if (memory_.erase(name) == 0) why = missing(name);
    return why.empty();
  }
  if (::unlink(path(name).c_str()) == 0) return true;
  why = errno == ENOENT ? missing(name) : "cannot remove " + path(name) + ": " + std::strerror(errno);
  return false;
}

Area *area_of(Call &c, Named how) {
  Areas &all = areas(c);
  if (how == Named::kBackups) return all.backups.get();
  uint32_t type = 0;
  if (!c.in.u32(type)) {
    c.malformed();
    return nullptr;
  }
  if (type < all.files.size()) return &all.files[type];
  c.error(format("Unknown file type %u (file types are 0 to %zu)", type, all.files.size() - 1));
  return nullptr;
}

Area &backup_area(Call &c) { return *areas(c).backups; }

bool may_write(Call &c, Named how, const Area &a, const std::string &name) {
  if (!(a.type().flags & kAreaWritable)) {
    c.error(format("The %s area cannot be written", a.type().name));
    return false;
  }
  if (const std::string why = name_problem(name); !why.empty()) {
    c.error(why);
    return false;
  }
  const uint32_t resource = resource_of(how);
  return permitted(c, resource, Permission::kWrite) && c.edit(*c.store.resource(resource)) != nullptr;
}

void send_download(Call &c, const std::string &contents) {
  const std::size_t limit = c.hub.options().max_reply_bytes;
  std::size_t at = 0;
  bool first = true;
  while (first || at < contents.size()) {
    Msg m = c.data();
    if (!m) return c.reply(std::move(m));  // the pool is dry: the connection goes
    if (first) tq_msg_put_uint32(m.get(), static_cast<uint32_t>(contents.size()));
    first = false;
    while (at < contents.size() && limit > m->len + 2u) {
      const std::size_t n = std::min({kMaxChunkBytes, limit - m->len - 2, contents.size() - at});
      tq_msg_put_uint16(m.get(), static_cast<uint16_t>(n));
      tq_msg_put_data(m.get(), contents.data() + at, n);
      at += n;
    }
    c.reply(std::move(m));
  }
  c.ok();
}

void area_list(Call &c, Named how, PutFile put) {
  Area *a = area_of(c, how);
  if (!a) return;
  if (!c.in.end()) return c.malformed();
  std::vector<FileInfo> files;
  std::string why;
  if (!a->list(files, why)) return c.error(why);
  ListAnswer answer(c);
  for (const FileInfo &f : files) {
    put(answer.out(), f);
    answer.next();
  }
  answer.finish();
}

void area_remove(Call &c, Named how) {
  Area *a = area_of(c, how);
  std::string name, why;
  if (!a) return;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  if (!may_write(c, how, *a, name)) return;
  if (!a->remove(name, why)) return c.error(why);
  c.ok();
}

void area_download(Call &c, Named how) {
  Area *a = area_of(c, how);
  std::string name, contents, why;
  if (!a) return;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  if (!(a->type().flags & kAreaDownloadable))
    return c.error(format("Files in the %s area cannot be downloaded", a->type().name));
  if (const std::string problem = name_problem(name); !problem.empty()) return c.error(problem);
  if (!a->read(name, contents, why)) return c.error(why);
  send_download(c, contents);
}

void upload_start(Call &c, Named how) {
  Area *a = area_of(c, how);
  std::string name;
  if (!a) return;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  if (!may_write(c, how, *a, name)) return;
  Areas &all = areas(c);
  const auto mine = std::ranges::count_if(all.uploads, [&](const auto &u) { return u.second.conn == c.conn; });
  if (static_cast<std::size_t>(mine) >= kMaxUploads)
    return c.error(format("This connection already has %zu uploads in progress: finish or abort one first",
                          kMaxUploads));
  while (all.next_upload == 0 || all.uploads.contains(all.next_upload)) ++all.next_upload;
  const uint32_t id = all.next_upload++;
  all.uploads[id] = Upload{c.conn, c.sess->id, a, std::move(name), {}};
  c.answer(Out().u32(id));
}

// Body: u32 transfer id, then chunks (u16 length, bytes) to the end.
void upload_data(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id)) return c.malformed();
  std::string chunks;
  while (c.in.left() > 0) {
    uint16_t n = 0;
    std::string bytes;
    if (!c.in.u16(n) || !c.in.bytes(bytes, n)) return c.malformed();
    if (n > kMaxChunkBytes) {
      static_cast<void>(c.in.fail(format("a chunk of %u bytes (at most %zu)", n, kMaxChunkBytes)));
      return c.malformed();
    }
    chunks += bytes;
  }
  if (!c.in.end()) return c.malformed();
  Upload *u = upload_of(c, id);
  if (!u) return;
  const uint64_t max = areas(c).max_file_bytes;
  if (u->data.size() + chunks.size() > max) {
    areas(c).uploads.erase(id);
    return c.error(format("Transfer %u passes the largest file size of %llu bytes; the upload was discarded",
                          id, static_cast<unsigned long long>(max)));
  }
  u->data += chunks;
  c.ok();
}

// Body: (files: u32 type,) u32 transfer id, name: the area and name the
// upload started with.
void upload_finish(Call &c, Named how) {
  Area *a = area_of(c, how);
  uint32_t id = 0;
  std::string name, why;
  if (!a) return;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  Upload *u = upload_of(c, id);
  if (!u) return;
  if (a != u->area || name != u->name)
    return c.error(format("Transfer %u uploads '%s' to the %s area", id, u->name.c_str(),
                          u->area->type().name));
  if (!may_write(c, how, *a, name)) return;
  std::string contents = std::move(u->data);
  areas(c).uploads.erase(id);
  if (!a->write(name, std::move(contents), c.hub.now(), why)) return c.error(why);
  c.ok();
}

void upload_abort(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  if (!upload_of(c, id)) return;
  areas(c).uploads.erase(id);
  c.ok();
}

}  // namespace tqsim
