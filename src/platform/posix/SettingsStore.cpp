// The settings store as an SQLite database: $XDG_CONFIG_HOME/kovcamera2/settings.db, ~/.config where that is not set.
//
// An open key is a picture of its values in memory, taken by one statement, and a list of changes. Closing it hands the
// changes to the writer, a thread that lives while there is something to write: one transaction for all that has come
// together. So no caller waits for another process, nobody ever sees half a save, and a process that is killed while
// saving leaves the old values. The journal is a write-ahead one, where readers and the writer do not wait for each other.
#include "platform/SettingsStore.h"

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/Attempt.h"
#include "base/Log.h"
#include "base/Mutex.h"
#include "platform/Platform.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

constexpr int READ_BUSY_MS = 1000;   // longest wait of a caller for a store that another program locks
constexpr int WRITE_BUSY_MS = 5000;  // the same for the writer, which nobody but a close waits for

struct DbClose {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementClose {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, DbClose>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementClose>;

// Key and value names are ASCII in this library; other characters pass as UTF-8.
std::string Utf8(const wchar_t* sz)
{
    std::string s;
    for (; *sz; ++sz) {
        const auto c = static_cast<char32_t>(*sz);
        if (c < 0x80) {
            s += static_cast<char>(c);
            continue;
        }
        const int n = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;  // bytes that follow the first
        s += static_cast<char>(((0xF00u >> n) & 0xFF) | (c >> (6 * n)));
        for (int i = n - 1; i >= 0; --i)
            s += static_cast<char>(0x80 | ((c >> (6 * i)) & 0x3F));
    }
    return s;
}

std::string HomeFolder()
{
    if (const char* const home = std::getenv("HOME"); home && home[0] == '/')
        return home;
    // A service often runs without the variable.
    passwd entry{}, *found = nullptr;
    char ac[4096];
    if (getpwuid_r(getuid(), &entry, ac, sizeof ac, &found) == 0 && found && found->pw_dir && found->pw_dir[0] == '/')
        return found->pw_dir;
    return {};
}

// Empty when the user has no place for settings.
fs::path DatabasePath()
{
    fs::path dir;
    if (const char* const xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/')
        dir = xdg;
    else if (const std::string home = HomeFolder(); !home.empty())
        dir = fs::path(home) / ".config";
    else
        return {};
    return dir / "kovcamera2" / "settings.db";
}

// Every kind of trouble is told once a process: it would come again with each save.
enum class Trouble { NoFolder, NotKept, NotRead, Damaged };
bool IsNews(Trouble t)
{
    static std::atomic<unsigned> s_told = 0;
    const unsigned bit = 1u << static_cast<unsigned>(t);
    return (s_told.fetch_or(bit) & bit) == 0;
}

const char* WayOut(int rc)
{
    switch (rc & 0xFF) {
    case SQLITE_FULL: return "Make room there";
    case SQLITE_IOERR: return "See whether there is room, also in the quota, and whether the disk is sound";
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return "Another program holds the file: close it";
    case SQLITE_NOMEM: return "They are kept with the next save that finds memory";
    default: return "Make the folder writable, or set XDG_CONFIG_HOME to one that is";
    }
}

void TellNotKept(const fs::path& path, const char* reason, int rc)
{
    if (IsNews(Trouble::NotKept))
        KOV_LOG(Error, "settings are not kept in %s: %s. %s", path.c_str(), reason, WayOut(rc));
}

// SQLITE_ERROR: statements that fit every file of ours do not fit its tables. SQLITE_TOOBIG: a row tells of more bytes than any
// has.
bool IsDamage(int rc)
{
    const int code = rc & 0xFF;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_ERROR || code == SQLITE_TOOBIG;
}
// Some damage to a schema makes SQLite tell of no memory, however much there is, and some to the head that nothing may be
// written.
bool MayBeDamage(int rc) { return IsDamage(rc) || (rc & 0xFF) == SQLITE_NOMEM || (rc & 0xFF) == SQLITE_READONLY; }

constexpr const char* TABLE =
    "setting (key TEXT NOT NULL COLLATE NOCASE, name TEXT NOT NULL COLLATE NOCASE, type INTEGER NOT NULL, "
    "bytes BLOB NOT NULL, PRIMARY KEY (key, name)) WITHOUT ROWID";

// Read and write even for reading: a transaction that a killed process has left behind has to be rolled back. SQLite
// falls back to reading only where the file is write-protected.
Db OpenDatabase(const fs::path& path, bool create, int busyMs)
{
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0), nullptr);
    Db db(raw);
    if (rc != SQLITE_OK)
        return nullptr;
    sqlite3_busy_timeout(db.get(), busyMs);
    return db;
}

Statement Prepare(const Db& db, const char* sql)
{
    sqlite3_stmt* p = nullptr;
    sqlite3_prepare_v2(db.get(), sql, -1, &p, nullptr);
    return Statement(p);
}

bool Execute(const Db& db, const char* sql) { return sqlite3_exec(db.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

void BindText(const Statement& s, int i, const std::string& text)
{
    sqlite3_bind_text(s.get(), i, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

struct Value {
    std::string name;
    uint32_t type;
    std::vector<uint8_t> data;
};

Value* Find(std::vector<Value>& a, const std::string& name)
{
    const auto it =
        std::find_if(a.begin(), a.end(), [&](const Value& v) { return sqlite3_stricmp(v.name.c_str(), name.c_str()) == 0; });
    return it == a.end() ? nullptr : &*it;
}

void Put(std::vector<Value>& a, Value v)
{
    if (Value* const old = Find(a, v.name))
        *old = std::move(v);
    else
        a.push_back(std::move(v));
}

struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const { return sqlite3_stricmp(a.c_str(), b.c_str()) < 0; }
};
using Changes = std::map<std::string, std::vector<Value>, NoCase>;  // key -> values

// Whether the table is ours to the letter. Damage to a schema makes other tables, some of which can be read.
bool IsOurs(const Db& db)
{
    const Statement s = Prepare(db, "SELECT 1 FROM sqlite_schema WHERE name = 'setting' AND sql = 'CREATE TABLE ' || ?1");
    if (!s)
        return false;
    BindText(s, 1, TABLE);
    return sqlite3_step(s.get()) == SQLITE_ROW;
}

// Goes through all rows in the order of the file; row(key, name, statement). SQLITE_DONE, or why it ended; SQLITE_ERROR: there
// is no such table. SQLite searches a row by that order and takes it on trust: rows that lie elsewhere would be kept and never be
// found again.
template <class Row>
int Walk(const Db& db, Row row)
{
    const Statement s = Prepare(db, "SELECT key, name, type, bytes FROM setting NOT INDEXED");
    if (!s)
        return sqlite3_errcode(db.get());
    if (!IsOurs(db))
        return SQLITE_CORRUPT;
    const auto text = [&](int column) -> std::string {
        const auto* const p = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), column));
        return p ? p : "";
    };
    std::string lastKey, lastName;
    for (bool first = true;; first = false) {
        if (const int rc = sqlite3_step(s.get()); rc != SQLITE_ROW)
            return rc;
        if (sqlite3_column_type(s.get(), 0) != SQLITE_TEXT || sqlite3_column_type(s.get(), 1) != SQLITE_TEXT)
            return SQLITE_CORRUPT;
        std::string key = text(0), name = text(1);
        const int order = sqlite3_stricmp(lastKey.c_str(), key.c_str());
        if (!first && (order > 0 || (order == 0 && sqlite3_stricmp(lastName.c_str(), name.c_str()) >= 0)))
            return SQLITE_CORRUPT;
        row(key, name, s);
        lastKey = std::move(key);
        lastName = std::move(name);
    }
}

// SQLITE_OK, or what is wrong with the file's pages. Rows are found and written in some files in which others are then lost.
int QuickCheck(const Db& db)
{
    const Statement s = Prepare(db, "PRAGMA quick_check(1)");
    if (!s)
        return sqlite3_errcode(db.get());
    if (const int rc = sqlite3_step(s.get()); rc != SQLITE_ROW)
        return rc;
    const auto* const result = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0));
    return result && std::strcmp(result, "ok") != 0 ? SQLITE_CORRUPT : SQLITE_OK;
}

constexpr auto NOTHING = [](const std::string&, const std::string&, const Statement&) {};

// SQLITE_OK: a transaction has begun in which rows can be written. Else why not; later calls, even the end of a statement, make
// the database forget that. It is rolled back when the database closes, unless it is committed.
int Begin(const Db& db)
{
    // IMMEDIATE: a second process waits here, where waiting is possible, and not in the middle.
    if (!Execute(db, "BEGIN IMMEDIATE"))
        return sqlite3_errcode(db.get());
    if (const int rc = QuickCheck(db); rc != SQLITE_OK)
        return rc;
    if (!Execute(db, (std::string("CREATE TABLE IF NOT EXISTS ") + TABLE).c_str()))
        return sqlite3_errcode(db.get());
    const int rc = Walk(db, NOTHING);
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

// --- a damaged file ---------------------------------------------------------------------------------------------------

// At the second look, with memory there to be had, that is what it was.
bool IsDamageStill(int rc)
{
    if ((rc & 0xFF) != SQLITE_NOMEM)
        return IsDamage(rc);
    void* const p = sqlite3_malloc(0x100000);
    sqlite3_free(p);
    return p != nullptr;
}

// The head tells of a later format than there is, which SQLite reads and does not write.
bool IsOfNoFormat(const fs::path& path)
{
    constexpr int WRITE_FORMAT = 18, LAST_FORMAT = 2;
    std::ifstream file(path, std::ios::binary);
    file.seekg(WRITE_FORMAT);
    return file.get() > LAST_FORMAT;
}

bool IsDamagedNow(const fs::path& path)
{
    if (IsOfNoFormat(path))
        return true;
    const Db db = OpenDatabase(path, false, READ_BUSY_MS);
    if (!db)
        return false;
    // Without a lock first: a file that nobody may write can be damaged too.
    if (const int rc = QuickCheck(db); rc != SQLITE_OK)
        return IsDamageStill(rc);
    const int rows = Walk(db, NOTHING);
    return (rows != SQLITE_ERROR && IsDamageStill(rows)) || IsDamageStill(Begin(db));
}

// The file goes to settings-DATE-TIME.damaged, with its journal; the next save begins a new one. The lock on the folder
// keeps two processes from putting aside the new one of the other.
void PutAside(const fs::path& path)
{
    const int fd = ::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::flock(fd, LOCK_EX);
    if (IsDamagedNow(path)) {
        const std::time_t t = std::time(nullptr);
        std::tm local = {};
        localtime_r(&t, &local);
        char name[64];
        std::strftime(name, sizeof name, "settings-%Y%m%d-%H%M%S.damaged", &local);
        const fs::path aside = path.parent_path() / name;
        std::error_code ec;
        fs::rename(path, aside, ec);
        for (const char* suffix : { "-wal", "-shm", "-journal" }) {
            std::error_code none;
            fs::rename(path.string() + suffix, aside.string() + suffix, none);
        }
        if (!ec && IsNews(Trouble::Damaged))
            KOV_LOG(Error, "the settings in %s were damaged; they are now in %s, and the cameras begin with their defaults",
                    path.c_str(), aside.c_str());
    }
    ::close(fd);
}

// --- the writer -------------------------------------------------------------------------------------------------------

// SQLITE_OK, or why the rows are not in the database. Rows that keep their contents are not written, so a save without a change
// costs no disk access.
int WriteRows(const Db& db, const Changes& changes, const std::set<std::string, NoCase>& unread)
{
    if (const int rc = Begin(db); rc != SQLITE_OK)
        return rc;
    const Statement replace = Prepare(db,
                                      "INSERT INTO setting VALUES (?1, ?2, ?3, ?4) ON CONFLICT DO UPDATE "
                                      "SET type = ?3, bytes = ?4 WHERE type <> ?3 OR bytes <> ?4");
    if (!replace)
        return sqlite3_errcode(db.get());
    const Statement add = Prepare(db, "INSERT INTO setting VALUES (?1, ?2, ?3, ?4) ON CONFLICT DO NOTHING");
    if (!add)
        return sqlite3_errcode(db.get());
    for (const auto& [key, values] : changes) {
        const Statement& s = unread.contains(key) ? add : replace;
        for (const Value& v : values) {
            BindText(s, 1, key);
            BindText(s, 2, v.name);
            sqlite3_bind_int64(s.get(), 3, v.type);
            if (v.data.empty())
                sqlite3_bind_zeroblob(s.get(), 4, 0);
            else
                sqlite3_bind_blob(s.get(), 4, v.data.data(), static_cast<int>(v.data.size()), SQLITE_TRANSIENT);
            const int rc = sqlite3_step(s.get());
            sqlite3_reset(s.get());
            if (rc != SQLITE_DONE)
                return rc;
        }
    }
    return Execute(db, "COMMIT") ? SQLITE_OK : sqlite3_errcode(db.get());
}

void Save(const fs::path& path, const Changes& changes, const std::set<std::string, NoCase>& unread)
{
    if (path.empty()) {
        if (IsNews(Trouble::NoFolder))
            KOV_LOG(Error,
                    "settings are not kept: the user has no home folder. Set XDG_CONFIG_HOME to a folder that is writable");
        return;
    }
    std::error_code ec;
    fs::create_directories(path.parent_path(), ec);
    for (const bool last : { false, true }) {
        Db db = OpenDatabase(path, true, WRITE_BUSY_MS);
        if (!db)
            return TellNotKept(path, ec ? ec.message().c_str() : "the file cannot be opened",
                               ec == std::errc::no_space_on_device ? SQLITE_FULL : SQLITE_CANTOPEN);
        // Where the file system has no shared memory, or another program is busy, the journal stays as it was.
        sqlite3_busy_timeout(db.get(), 0);
        Execute(db, "PRAGMA journal_mode = WAL");
        sqlite3_busy_timeout(db.get(), WRITE_BUSY_MS);
        Execute(db, "PRAGMA synchronous = NORMAL");
        const int rc = WriteRows(db, changes, unread);
        if (rc == SQLITE_OK)
            return;
        if (last || !MayBeDamage(rc))
            return TellNotKept(path, sqlite3_errstr(rc), rc);
        db = nullptr;  // with its lock
        PutAside(path);
    }
}

class Writer {
public:
    static Writer& Current();
    void Stop()
    {
        Flush();
        m_thread.Wait(WAIT_FOREVER);
    }

    // The database is that of the moment: the environment may change before the thread comes to it.
    void Hand(const fs::path& path, const std::string& key, std::vector<Value> values)
    {
        const MutexLock lock(m_m);
        if (path != m_path) {
            WaitUntil(m_m, m_idle, [this]() KOV_TSA(requires_capability(m_m)) { return !m_running; });
            m_path = path;
            m_unread.clear();
        }
        std::vector<Value>& a = m_waiting[key];
        for (Value& v : values)
            Put(a, std::move(v));
        if (m_running)
            return;
        m_running = m_thread.Start([](void* p) { static_cast<Writer*>(p)->Run(); }, this);
        if (!m_running)  // no thread to be had
            WriteAll();
    }
    void Flush()
    {
        const MutexLock lock(m_m);
        WaitUntil(m_m, m_idle, [this]() KOV_TSA(requires_capability(m_m)) { return !m_running; });
    }
    // What has not reached the database yet, newest last.
    void Overlay(const std::string& key, std::vector<Value>& values)
    {
        const MutexLock lock(m_m);
        for (const Changes* p : { &m_writing, &m_waiting })
            if (const auto it = p->find(key); it != p->end())
                for (const Value& v : it->second)
                    Put(values, v);
    }
    void MarkUnread(const std::string& key, bool unread)
    {
        const MutexLock lock(m_m);
        if (unread)
            m_unread.insert(key);
        else
            m_unread.erase(key);
    }

private:
    void Run()
    {
        logging::SetThreadName("settings");
        const MutexLock lock(m_m);
        WriteAll();
        m_running = false;
        m_idle.notify_all();
    }
    // What is left for lack of memory waits for the next save.
    void WriteAll() KOV_TSA(requires_capability(m_m))
    {
        Attempt(STEP, [this]() KOV_TSA(no_thread_safety_analysis) { WriteWaiting(); });
    }
    // The lock is not held while the database is written; nobody changes what it is written from.
    void WriteWaiting() KOV_TSA(requires_capability(m_m))
    {
        while (!m_waiting.empty()) {
            const auto unread = m_unread;
            m_writing.swap(m_waiting);
            m_m.unlock();
            Attempt(STEP, [&]() KOV_TSA(no_thread_safety_analysis) { Save(m_path, m_writing, unread); });
            m_m.lock();
            m_writing.clear();
        }
    }

    static constexpr char STEP[] = "saving the settings";
    Mutex m_m;
    std::condition_variable m_idle;
    fs::path m_path KOV_TSA(guarded_by(m_m));
    Changes m_waiting KOV_TSA(guarded_by(m_m)), m_writing KOV_TSA(guarded_by(m_m));
    std::set<std::string, NoCase> m_unread KOV_TSA(guarded_by(m_m));
    bool m_running KOV_TSA(guarded_by(m_m)) = false;
    Thread m_thread;
};

std::atomic<Writer*> g_Writer = nullptr;

// Never destroyed, but all is written before the process ends or the library is unloaded. After a fork the parent's thread
// is missing and its lock may be held, so the child takes a new one; what waited is the parent's to write.
Writer& Writer::Current()
{
    struct AtExit {
        AtExit()
        {
            g_Writer = new Writer;
            pthread_atfork(nullptr, nullptr, [] { g_Writer = new Writer; });
        }
        ~AtExit() { g_Writer.load()->Stop(); }
    };
    static const AtExit s_atExit;
    return *g_Writer;
}

// --- keys -------------------------------------------------------------------------------------------------------------

class DatabaseKey final : public SettingsKey {
public:
    explicit DatabaseKey(const wchar_t* key) : m_key(Utf8(key)) {}
    ~DatabaseKey() override
    {
        try {
            if (!m_changes.empty())
                Writer::Current().Hand(DatabasePath(), m_key, std::move(m_changes));
        } catch (...) {  // out of memory: the store keeps what it had
        }
    }

    // Whether the key exists.
    bool Load()
    {
        m_loaded = true;
        const fs::path path = DatabasePath();
        std::error_code ec;
        if (!path.empty() && fs::exists(path, ec)) {
            const int rc = Read(path);
            if (MayBeDamage(rc))
                PutAside(path);
            const bool unread = rc != SQLITE_DONE && !IsDamage(rc) && fs::exists(path, ec);
            Writer::Current().MarkUnread(m_key, unread);
            if (unread && IsNews(Trouble::NotRead))
                KOV_LOG(Warn, "settings in %s cannot be read now: %s. The camera begins with its defaults; what is stored stays",
                        path.c_str(), sqlite3_errstr(rc));
            if (rc != SQLITE_DONE)
                m_values.clear();
        }
        Writer::Current().Overlay(m_key, m_values);
        return !m_values.empty();
    }

    uint32_t Query(const wchar_t* name, void* data, uint32_t* count) override
    {
        const std::string wanted = Utf8(name);
        const Value* p = Find(m_changes, wanted);
        if (!p) {
            if (!m_loaded)
                Load();
            p = Find(m_values, wanted);
        }
        if (!p)
            return STORE_NOT_FOUND;
        const auto n = static_cast<uint32_t>(p->data.size());
        const bool fits = n <= *count;
        if (fits && n != 0)
            std::memcpy(data, p->data.data(), n);
        *count = n;
        return fits ? STORE_OK : STORE_MORE_DATA;
    }

    uint32_t Set(const wchar_t* name, uint32_t type, const void* data, uint32_t size) override
    {
        const auto* const p = static_cast<const uint8_t*>(data);
        Put(m_changes, { Utf8(name), type, std::vector<uint8_t>(p, p + size) });
        return STORE_OK;
    }

private:
    // SQLITE_DONE, or the error.
    int Read(const fs::path& path)
    {
        const Db db = OpenDatabase(path, false, READ_BUSY_MS);
        if (!db)
            return SQLITE_CANTOPEN;
        const int rc = Walk(db, [this](const std::string& key, const std::string& name, const Statement& s) {
            if (sqlite3_stricmp(key.c_str(), m_key.c_str()) != 0)
                return;
            const auto* const data = static_cast<const uint8_t*>(sqlite3_column_blob(s.get(), 3));
            const auto n = static_cast<size_t>(sqlite3_column_bytes(s.get(), 3));
            m_values.push_back({ name, static_cast<uint32_t>(sqlite3_column_int64(s.get(), 2)),
                                 data ? std::vector<uint8_t>(data, data + n) : std::vector<uint8_t>() });
        });
        return rc == SQLITE_ERROR ? SQLITE_DONE : rc;  // no table yet: nothing is stored
    }

    const std::string m_key;
    std::vector<Value> m_values, m_changes;
    bool m_loaded = false;
};

}  // namespace

std::unique_ptr<SettingsKey> OpenSettings(const wchar_t* name)
{
    auto key = std::make_unique<DatabaseKey>(name);
    return key->Load() ? std::move(key) : nullptr;
}

std::unique_ptr<SettingsKey> CreateSettings(const wchar_t* name) { return std::make_unique<DatabaseKey>(name); }

void FlushSettings() { Writer::Current().Flush(); }

}  // namespace platform
