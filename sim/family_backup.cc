// Backups (0x19Fxx): archives of the saved resources' committed contents,
// kept in the backups area like files, dumped from and restored into the
// resources.
#include <algorithm>
#include <vector>

#include "answer.h"
#include "backups.h"
#include "files.h"
#include "json.h"
#include "ruleset.h"
#include "state.h"
#include "users.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr auto kBackups = Named::kBackups;

// Record: path, u64 cdate, u64 size.
void put_backup(Out &o, const FileInfo &f) { put_u64(put_u64(o.text(f.name), f.mtime), f.size); }

std::string kept_list(const Store &store) {
  std::string out;
  for (uint32_t id : saved_resources())
    out += (out.empty() ? "" : ", ") + resource_label(*store.resource(id));
  return out;
}

// An empty name asks for one: "backup-YYYYMMDD-HHMMSS", with "-2", "-3"...
// when taken.
std::string fresh_name(Call &c) {
  std::string stamp = timestamp_text(c.hub.now());
  std::erase_if(stamp, [](char ch) { return ch == '-' || ch == ':'; });
  std::replace(stamp.begin(), stamp.end(), ' ', '-');
  std::vector<FileInfo> taken;
  std::string why;
  static_cast<void>(backup_area(c).list(taken, why));
  const std::string base = "backup-" + stamp;
  std::string name = base;
  for (int n = 2; std::ranges::any_of(taken, [&](const FileInfo &f) { return f.name == name; }); ++n)
    name = base + "-" + std::to_string(n);
  return name;
}

// Body: name, u32 resource (0: every saved resource). Answer: the name.
void dump_backup(Call &c) {
  std::string name, why;
  uint32_t resource = 0;
  if (!c.in.text(name) || !c.in.u32(resource) || !c.in.end()) return c.malformed();
  if (resource != 0 && !c.store.resource(resource))
    return c.error(format("Unknown resource %u", resource));
  if (resource != 0 && !is_saved(resource))
    return c.error("Resource " + resource_label(*c.store.resource(resource)) +
                   " is not kept in backups; these are: " + kept_list(c.store));
  if (name.empty()) name = fresh_name(c);
  Area &area = backup_area(c);
  if (!may_write(c, kBackups, area, name)) return;
  const ArchiveHeader header{resource, name, timestamp_text(c.hub.now()), "tqdbsim"};
  if (!area.write(name, dump(saved_document(c.store, resource, &header)) + "\n", c.hub.now(), why))
    return c.error(why);
  c.answer(Out().text(name));
}

// Body: name, u32 section (a resource in the archive; 0: all of them). The
// archive is read whole before anything changes; each resource concerned
// then takes its contents in a commit of its own.
void restore_backup(Call &c) {
  std::string name, text, why;
  uint32_t section = 0;
  if (!c.in.text(name) || !c.in.u32(section) || !c.in.end()) return c.malformed();
  if (const std::string problem = name_problem(name); !problem.empty()) return c.error(problem);
  if (!backup_area(c).read(name, text, why)) return c.error(why);
  Json doc;
  ArchiveHeader header;
  std::vector<SavedPart> parts;
  if (!parse(text, doc, why) || !read_document(doc, &header, parts, why))
    return c.error("Backup '" + name + "' is damaged: " + why);
  if (section != 0) {
    if (!c.store.resource(section)) return c.error(format("Unknown resource %u", section));
    std::erase_if(parts, [&](const SavedPart &p) { return p.resource != section; });
    if (parts.empty())
      return c.error("Backup '" + name + "' holds no resource " +
                     resource_label(*c.store.resource(section)));
  }
  for (const SavedPart &p : parts) {
    const Resource &r = *c.store.resource(p.resource);
    if (!permitted(c, r.id, Permission::kWrite)) return;
    if (r.holder != 0 && r.holder != c.sess->id) return c.lock(lock_text(c.store, r));
  }
  if (c.sess->open != 0)
    return c.error(format("Session %u has a transaction open on resource %s: commit or roll it back first",
                          c.sess->id, resource_label(*c.store.resource(c.sess->open)).c_str()));
  std::vector<tq_commitid_t> ids;
  for (SavedPart &p : parts) {
    Resource &r = *c.store.resource(p.resource);
    c.store.begin(*c.sess, r);
    adopt(r, p.data);
    ids.push_back(commit_open(c, "restore of backup '" + name + "'"));
  }
  c.ok();
  for (const tq_commitid_t &id : ids) broadcast_commit(c, id);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {kReqBackupList, "backup_list", H, S, [](Call &c) { area_list(c, kBackups, put_backup); }},
    {kReqBackupDownload, "backup_download", H, S, [](Call &c) { area_download(c, kBackups); }},
    {kReqBackupUploadStart, "backup_upload", H, S, [](Call &c) { upload_start(c, kBackups); }},
    {kReqBackupDump, "backup_dump", H, S, dump_backup},
    {kReqBackupRestore, "backup_restore", H, S, restore_backup},
    {kReqBackupRemove, "backup_remove", H, S, [](Call &c) { area_remove(c, kBackups); }},
    {kReqBackupUploadData, "backup_upload_data", H, S, upload_data},
    {kReqBackupUploadFinish, "backup_upload_finish", H, S, [](Call &c) { upload_finish(c, kBackups); }},
    {kReqBackupUploadAbort, "backup_upload_abort", H, S, upload_abort},
};

}  // namespace

std::span<const Route> family_backup() { return kRoutes; }

}  // namespace tqsim
