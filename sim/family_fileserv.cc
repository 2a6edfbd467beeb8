// The file service (0x1A2xx, 0x1A6xx): the typed file areas, their
// listings, downloads, uploads and usage.
#include "answer.h"
#include "files.h"
#include "options.h"

namespace tqsim {
namespace {

// Record: u32 id, u32 flags, name.
void types(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const AreaType &t : area_types()) {
    a.out().u32(t.id).u32(t.flags).text(t.name);
    a.next();
  }
  a.finish();
}

// Record: name, u64 size, u64 mtime.
void put_file(Out &o, const FileInfo &f) { put_u64(put_u64(o.text(f.name), f.size), f.mtime); }

// Body: u32 type. Answer: u64 bytes used, u64 bytes allowed per file.
void usage(Call &c) {
  Area *a = area_of(c, Named::kByType);
  if (!a) return;
  if (!c.in.end()) return c.malformed();
  std::vector<FileInfo> files;
  std::string why;
  if (!a->list(files, why)) return c.error(why);
  uint64_t used = 0;
  for (const FileInfo &f : files) used += f.size;
  Out body;
  put_u64(put_u64(body, used), c.hub.options().max_file_bytes);
  c.answer(body);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr auto kTyped = Named::kByType;
constexpr Route kRoutes[] = {
    {kReqFileList, "fileserv_list", H, S, [](Call &c) { area_list(c, kTyped, put_file); }},
    {kReqFileRemove, "fileserv_remove", H, S, [](Call &c) { area_remove(c, kTyped); }},
    {kReqFileDownload, "fileserv_download", H, S, [](Call &c) { area_download(c, kTyped); }},
    {kReqFileUploadStart, "fileserv_upload", H, S, [](Call &c) { upload_start(c, kTyped); }},
    {kReqFileUploadFinish, "fileserv_upload_finish", H, S, [](Call &c) { upload_finish(c, kTyped); }},
    {kReqFileUploadData, "fileserv_upload_data", H, S, upload_data},
    {kReqFileTypes, "fileserv_types", H, S, types},
    {kReqFileUploadAbort, "fileserv_upload_abort", H, S, upload_abort},
    {kReqFileUsage, "fileserv_usage", H, S, usage},
};

}  // namespace

std::span<const Route> family_fileserv() { return kRoutes; }

}  // namespace tqsim
