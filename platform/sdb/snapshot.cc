// SDB snapshots for global sync.
//
// A snapshot is one LMDB file (no sub-directory, no lock file) holding the same four
// sub-databases as the SDB: its meta record (kind, creator, generation), every record, and
// for an MSDB every record's secondary-key list and the secondary-key index, tags included.
// It lives in the snapshot area the caller names, at
//
//     <area>/sdb-snapshots/<uuid>/<db area>/<db path>.snap
//
// so snapshots of several services and SDBs share an area without clashing with the PSS
// snapshot files there, and both supervisors find a snapshot by the SDB's URI alone. A
// snapshot is written to a scratch file and renamed into place: a reader never meets half
// a snapshot.
//
// Both directions are file operations where they can be. Writing is LMDB's compacting copy
// of the live environment (one read transaction: a consistent copy, at disk speed); only an
// SDB whose meta record is not plainly live is copied record by record. An SDB's data file
// and a snapshot have the same format, so restoring an SDB that no process has open moves
// the checked snapshot file into place as the SDB's data file (the snapshot is used up): a
// rename, atomic on its own, with the SDB's lock file held exclusively meanwhile so that no
// process opens the SDB half way and the lock file is rebuilt for the new data. Where the
// SDB is open somewhere, the files lie on different file systems, or the snapshot has a list
// of free pages (not one the compacting copy wrote), the restore replaces the contents in
// one write transaction instead, so that other processes see the old or
// the new contents, never a mix.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "common/lmdb_check.h"
#include "common/lmdb_store.h"
#include "sdb/store.h"

namespace sdb = hadra::plat::sdb;
using hadra::plat::Call;

namespace {

const char* show(const char* s) { return s != nullptr ? s : "(null)"; }

uint32_t snapshot_path(const char* db_uri, const char* area, uint32_t uuid, bool mkdirs, std::string& out) {
  if (db_uri == nullptr || area == nullptr || std::strchr(area, ':') == nullptr) return PLAT_ERR_SDB_BAD_URI;
  const char* colon = std::strchr(db_uri, ':');
  if (colon == nullptr) return PLAT_ERR_SDB_BAD_URI;
  std::string rest(colon + 1);
  while (!rest.empty() && rest.front() == '/') rest.erase(0, 1);
  while (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (rest.empty()) return PLAT_ERR_SDB_BAD_URI;
  std::string u(area);
  while (u.back() == '/') u.pop_back();
  u += "/sdb-snapshots/" + std::to_string(uuid) + "/" + std::string(db_uri, colon) + "/" + rest + ".snap";
  char buf[4096];
  if (plat_uri_to_path(u.c_str(), buf, sizeof buf, mkdirs ? 1 : 0) != 0) return PLAT_ERR_SDB_BAD_URI;
  out = buf;
  return 0;
}

// Copies every entry of one sub-database into an empty one, in key order.
uint32_t copy_dbi(MDB_txn* from, MDB_dbi fd, MDB_txn* to, MDB_dbi td, unsigned append) {
  sdb::Cursor cur;
  if (int e = mdb_cursor_open(from, fd, &cur.c); e != 0) return sdb::map_err(e);
  MDB_val k, v;
  int e = mdb_cursor_get(cur.c, &k, &v, MDB_FIRST);
  for (; e == 0; e = mdb_cursor_get(cur.c, &k, &v, MDB_NEXT))
    if (int p = mdb_put(to, td, &k, &v, append); p != 0) return sdb::map_err(p);
  return e == MDB_NOTFOUND ? 0 : sdb::map_err(e);
}

uint32_t copy_contents(MDB_txn* from, const sdb::Env& f, MDB_txn* to, const sdb::Env& t) {
  uint32_t rc = copy_dbi(from, f.records, to, t.records, MDB_APPEND);
  if (rc == 0) rc = copy_dbi(from, f.mkeys, to, t.mkeys, MDB_APPEND);
  if (rc == 0) rc = copy_dbi(from, f.skeys, to, t.skeys, MDB_APPENDDUP);
  return rc;
}

// The environment of the SDB at path: this process's opening, or one opened for the call.
uint32_t source_env(const std::string& path, sdb::Env& scratch, const sdb::Env** out) {
  if (sdb::Db* db = sdb::find_path(path); db != nullptr) {
    *out = &db->env;
    return 0;
  }
  sdb::Meta m;
  *out = &scratch;
  return sdb::open_live(path, scratch, m);
}

// Flushes the directory of file, so that a rename into it survives a power cut.
uint32_t sync_dir_of(const std::string& file) {
  const std::string dir = file.substr(0, file.find_last_of('/'));
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool ok = fd >= 0 && ::fsync(fd) == 0;
  if (!ok)
    plat_syslog(PLAT_LOG_ERR, "SDB: flushing the directory %s failed: %s", dir.c_str(),
                hadra::plat::failure_cause(errno));
  if (fd >= 0) ::close(fd);
  return ok ? 0 : PLAT_ERR_SDB_IO;
}

uint32_t write_file(const sdb::Env& src, MDB_txn* rt, const sdb::Meta& m, const std::string& snap) {
  std::string tmp = snap + ".tmp-" + std::to_string(::getpid());
  ::unlink(tmp.c_str());
  sdb::Env dst;
  sdb::Meta live = m;
  live.state = sdb::kStateLive;
  uint32_t rc = dst.open(tmp, MDB_NOSUBDIR | MDB_NOLOCK, true, live);
  sdb::Txn wt;
  if (rc == 0) rc = wt.begin(dst, false);
  if (rc == 0) rc = copy_contents(rt, src, wt.get(), dst);
  if (rc == 0) rc = wt.commit();
  wt.abort();
  dst.close();
  // The scratch file's commit was flushed (it is opened without MDB_NOSYNC); the rename is
  // made durable with its directory.
  if (rc == 0 && ::rename(tmp.c_str(), snap.c_str()) != 0) {
    plat_syslog(PLAT_LOG_ERR, "SDB: renaming %s to %s failed: %s", tmp.c_str(), snap.c_str(),
                hadra::plat::failure_cause(errno));
    rc = PLAT_ERR_SDB_IO;
  }
  if (rc != 0) {
    ::unlink(tmp.c_str());
    return rc;
  }
  return sync_dir_of(snap);
}

// The live environment copied as a file: a scratch file flushed by the copy, then renamed.
uint32_t copy_file(const sdb::Env& src, const std::string& path, const std::string& snap) {
  const std::string tmp = snap + ".tmp-" + std::to_string(::getpid());
  if (int e = hadra::plat::env_copy_to(src.env(), tmp.c_str()); e != 0) {
    plat_syslog(PLAT_LOG_ERR, "SDB: copying %s to %s failed: %s", path.c_str(), tmp.c_str(),
                hadra::plat::failure_cause(e));
    return sdb::map_err(e);
  }
  if (::rename(tmp.c_str(), snap.c_str()) != 0) {
    plat_syslog(PLAT_LOG_ERR, "SDB: renaming %s to %s failed: %s", tmp.c_str(), snap.c_str(),
                hadra::plat::failure_cause(errno));
    ::unlink(tmp.c_str());
    return PLAT_ERR_SDB_IO;
  }
  return sync_dir_of(snap);
}

uint32_t write_snapshot(const std::string& path, const std::string& snap, uint32_t kind) {
  sdb::Env scratch;
  const sdb::Env* src = nullptr;
  uint32_t rc = source_env(path, scratch, &src);
  if (rc != 0) return rc;
  sdb::Txn rt;
  sdb::Meta m;
  if ((rc = rt.begin(*src, true)) != 0 || (rc = sdb::read_meta(rt.get(), *src, m)) != 0) return rc;
  if (m.kind != kind) return PLAT_ERR_SDB_BAD_ARG;
  if (m.state != sdb::kStateLive) return write_file(*src, rt.get(), m, snap);
  rt.abort();  // the copy reads in a transaction of its own
  return copy_file(*src, path, snap);
}

// The environment to restore into: this process's opening, or the SDB (created when
// missing or half destroyed) opened for the call.
uint32_t target_env(const std::string& path, const sdb::Meta& sm, sdb::Env& scratch, sdb::Db** db,
                    const sdb::Env** out) {
  *db = sdb::find_path(path);
  if (*db != nullptr) {
    *out = &(*db)->env;
    return 0;
  }
  uint32_t rc = sdb::create_at(path, sm.kind, sm.uuid);
  if (rc != 0 && rc != PLAT_ERR_SDB_EXISTS) return rc;
  *out = &scratch;
  return sdb::open_existing(path, scratch, nullptr);
}

uint32_t replace_contents(const sdb::Env& from, MDB_txn* rt, const sdb::Meta& sm, const sdb::Env& to) {
  sdb::Txn wt;
  uint32_t rc = wt.begin(to, false);
  for (MDB_dbi d : {to.records, to.mkeys, to.skeys})
    if (rc == 0) rc = sdb::map_err(mdb_drop(wt.get(), d, 0));
  if (rc == 0) rc = copy_contents(rt, from, wt.get(), to);
  sdb::Meta m = sm;
  m.state = sdb::kStateLive;
  if (rc == 0) rc = sdb::write_meta(wt.get(), to, m);
  if (rc == 0) rc = wt.commit();
  return rc;
}

constexpr uint32_t kNotMoved = ~0u;

// The SDB's lock file, locked the way LMDB's first opener locks it: held, no other process
// has the SDB open, and one that opens it meanwhile waits for the release. Closing it
// releases every lock this process holds on the file, so it goes after any environment
// opened under it.
struct LockFile {
  int fd = -1;
  ~LockFile() {
    if (fd >= 0) ::close(fd);
  }
  bool take(const std::string& dir) {
    fd = ::open((dir + "/lock.mdb").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    struct flock l{};
    l.l_type = F_WRLCK;
    l.l_whence = SEEK_SET;
    l.l_start = 0;
    l.l_len = 1;
    return ::fcntl(fd, F_SETLK, &l) == 0;
  }
};

// Moves the snapshot file snap (meta sm, already checked) into place as the data file of the
// SDB at path, which this process does not have open. kNotMoved when that cannot be done
// here (the SDB is open in another process, the files are on different file systems):
// the caller then copies the records; else 0 or the error that stopped the restore.
uint32_t adopt_file(const std::string& path, const std::string& snap, const sdb::Meta& sm) {
  uint32_t rc = sdb::create_at(path, sm.kind, sm.uuid);
  if (rc != 0 && rc != PLAT_ERR_SDB_EXISTS) return rc;
  LockFile lf;
  if (!lf.take(path)) return kNotMoved;
  const std::string data = path + "/data.mdb";
  if (::rename(snap.c_str(), data.c_str()) != 0) {
    if (errno == EXDEV) return kNotMoved;
    plat_syslog(PLAT_LOG_ERR, "SDB: moving %s to %s failed: %s", snap.c_str(), data.c_str(),
                hadra::plat::failure_cause(errno));
    return PLAT_ERR_SDB_IO;
  }
  if ((rc = sync_dir_of(data)) != 0) return rc;
  // Opened once under the lock: LMDB, finding itself the only opener, rebuilds the lock file
  // from the new data file; the blocks of the writable map are allocated.
  sdb::Env env;
  sdb::Meta now;
  rc = sdb::open_existing(path, env, &now);
  if (rc == 0 && now.state != sdb::kStateLive) {
    sdb::Txn wt;
    now.state = sdb::kStateLive;
    rc = wt.begin(env, false);
    if (rc == 0) rc = sdb::write_meta(wt.get(), env, now);
    if (rc == 0) rc = wt.commit();
  }
  if (rc != 0) plat_syslog(PLAT_LOG_ERR, "SDB: %s could not be opened after its snapshot was moved in", path.c_str());
  return rc;
}

uint32_t read_snapshot(const std::string& path, const std::string& snap, uint32_t kind) {
  struct stat st;
  if (::stat(snap.c_str(), &st) != 0) return PLAT_ERR_SDB_NOT_FOUND;
  // The file was shipped from the other supervisor: LMDB must not meet a damaged one.
  if (hadra::plat::lmdb_file_check(snap) != hadra::plat::LmdbFile::kSound) {
    plat_syslog(PLAT_LOG_ERR, "SDB: snapshot %s is damaged or cut short; %s not restored", snap.c_str(), path.c_str());
    return PLAT_ERR_SDB_IO;
  }
  sdb::Env file;
  sdb::Txn rt;
  sdb::Meta sm;
  if (file.open(snap, MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, false) != 0 || rt.begin(file, true) != 0 ||
      sdb::read_meta(rt.get(), file, sm) != 0)
    return PLAT_ERR_SDB_IO;
  if (sm.kind != kind) return PLAT_ERR_SDB_BAD_ARG;
  // The damage check walks what a reader reaches, not the list of free pages that a writer
  // takes pages from: only a file without one (as the compacting copy writes it) may become
  // a live store whole.
  MDB_stat fst;
  const bool no_free_list = mdb_stat(rt.get(), 0, &fst) == 0 && fst.ms_entries == 0;
  rt.abort();
  if (no_free_list && sdb::find_path(path) == nullptr) {
    file.close();
    if (uint32_t moved = adopt_file(path, snap, sm); moved != kNotMoved) return moved;
    if (file.open(snap, MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, false) != 0 || rt.begin(file, true) != 0)
      return PLAT_ERR_SDB_IO;
  } else if (rt.begin(file, true) != 0) {
    return PLAT_ERR_SDB_IO;
  }
  sdb::Env scratch;
  sdb::Db* db = nullptr;
  const sdb::Env* dst = nullptr;
  uint32_t rc;
  if ((rc = target_env(path, sm, scratch, &db, &dst)) != 0) return rc;
  // Old and new contents live side by side until the commit: blocks ahead for both.
  if (hadra::plat::StoreEnv* s = dst->store(); s != nullptr) {
    if (int e = s->reserve(2 * static_cast<size_t>(st.st_size) + sdb::kWriteRoom); e != 0) {
      plat_syslog(PLAT_LOG_ERR, "SDB: no room on the disk to restore %s: %s", path.c_str(), mdb_strerror(e));
      return sdb::map_err(e);
    }
  }
  if ((rc = replace_contents(file, rt.get(), sm, *dst)) != 0) return rc;
  if (db != nullptr) {  // its iterator stood on records that are gone
    db->kind = sm.kind;
    db->iter = sdb::Db::Iter::kNone;
    db->iter_key.clear();
    sdb::context_reset(*db);
    db->last.op = static_cast<uint16_t>(sdb::WriteOp::kRestore);
  }
  return 0;
}

// Every snapshot call: the SDB's path and its snapshot's (only the side being written gets
// its directories made), then the copy in the call's direction, all under the lock.
uint32_t snapshot_call(const char* call, bool writing, const char* db_uri, const char* area, uint32_t uuid,
                       uint32_t kind) {
  Call c("sdb", call, PLAT_ERR_SDB_IO);
  c.args("uri=%s area=%s uuid=%u", show(db_uri), show(area), uuid);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(sdb::with_path(db_uri, !writing, [&](const std::string& path) {
    // A snapshot is of what is committed, and a restore replaces it: applied changes first.
    if (int e = hadra::plat::apply_batch_settle_all(); e != 0) return sdb::map_err(e);
    std::string snap;
    uint32_t rc = snapshot_path(db_uri, area, uuid, writing, snap);
    if (rc != 0) return rc;
    return writing ? write_snapshot(path, snap, kind) : read_snapshot(path, snap, kind);
  }));
}

}  // namespace

extern "C" {

HADRA_PLAT_API uint32_t sdb_write_snapshot(const char* db_uri, const char* base_uri, uint32_t uuid) noexcept {
  return snapshot_call("sdb_write_snapshot", true, db_uri, base_uri, uuid, SDB_CREATE_SDB);
}

HADRA_PLAT_API uint32_t mksdb_write_snapshot(const char* db_uri, const char* base_uri, uint32_t uuid) noexcept {
  return snapshot_call("mksdb_write_snapshot", true, db_uri, base_uri, uuid, SDB_CREATE_MSDB);
}

HADRA_PLAT_API uint32_t sdb_read_snapshot(const char* db_uri, const char* source_uri, uint32_t uuid) noexcept {
  return snapshot_call("sdb_read_snapshot", false, db_uri, source_uri, uuid, SDB_CREATE_SDB);
}

HADRA_PLAT_API uint32_t mksdb_read_snapshot(const char* db_uri, const char* source_uri, uint32_t uuid) noexcept {
  return snapshot_call("mksdb_read_snapshot", false, db_uri, source_uri, uuid, SDB_CREATE_MSDB);
}

}  // extern "C"
