// The settings store as an SQLite database: $XDG_CONFIG_HOME/kovcamera2/settings.db, ~/.config where that is not set.
//
// An open key is a picture of its values in memory, taken by one statement, and a list of changes. Closing it writes all
// changes in one transaction. So no lock is held while a key is open, nobody ever sees half a save, and a process that
// is killed while saving leaves the old values.
#include "platform/SettingsStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace platform {
namespace {

namespace fs = std::filesystem;

constexpr int BUSY_MS = 1000;  // longest wait for another process that saves; a save may wait twice, to look and to write

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
        const auto c = static_cast<uint32_t>(*sz);
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

// Empty when the user has no place for settings.
fs::path DatabasePath()
{
    fs::path dir;
    if (const char* const szXdg = std::getenv("XDG_CONFIG_HOME"); szXdg && szXdg[0] == '/')
        dir = szXdg;
    else if (const char* const szHome = std::getenv("HOME"); szHome && szHome[0] == '/')
        dir = fs::path(szHome) / ".config";
    else
        return {};
    return dir / "kovcamera2" / "settings.db";
}

// Read and write even for reading: a transaction that a killed process has left behind has to be rolled back. SQLite
// falls back to reading only where the file is write-protected.
Db OpenDatabase(bool bCreate)
{
    const fs::path path = DatabasePath();
    if (path.empty())
        return nullptr;
    if (bCreate) {
        std::error_code ec;
        fs::create_directories(path.parent_path(), ec);
    }
    sqlite3* pRaw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &pRaw, SQLITE_OPEN_READWRITE | (bCreate ? SQLITE_OPEN_CREATE : 0), nullptr);
    Db db(pRaw);
    if (rc != SQLITE_OK)
        return nullptr;
    sqlite3_busy_timeout(db.get(), BUSY_MS);
    return db;
}

Statement Prepare(const Db& db, const char* szSql)
{
    sqlite3_stmt* p = nullptr;
    sqlite3_prepare_v2(db.get(), szSql, -1, &p, nullptr);
    return Statement(p);
}

bool Execute(const Db& db, const char* szSql) { return sqlite3_exec(db.get(), szSql, nullptr, nullptr, nullptr) == SQLITE_OK; }

void BindText(const Statement& s, int i, const std::string& text)
{
    sqlite3_bind_text(s.get(), i, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

struct Value {
    std::string sName;
    uint32_t dwType;
    std::vector<uint8_t> abData;
};

class DatabaseKey final : public SettingsKey {
public:
    explicit DatabaseKey(const wchar_t* szKey) : m_sKey(Utf8(szKey)) {}
    ~DatabaseKey() override
    {
        try {
            Save();
        } catch (...) {  // out of memory: the store keeps what it had
        }
    }

    // Whether the key exists.
    bool Load(const Db& db)
    {
        m_bLoaded = true;
        const Statement s = Prepare(db, "SELECT name, type, bytes FROM setting WHERE key = ?1");
        if (!s)
            return false;
        BindText(s, 1, m_sKey);
        int rc;
        while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
            const auto* pName = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0));
            const auto* pData = static_cast<const uint8_t*>(sqlite3_column_blob(s.get(), 2));
            const auto n = static_cast<size_t>(sqlite3_column_bytes(s.get(), 2));
            m_aValues.push_back({ pName ? pName : "", static_cast<uint32_t>(sqlite3_column_int64(s.get(), 1)),
                                  pData ? std::vector<uint8_t>(pData, pData + n) : std::vector<uint8_t>() });
        }
        return rc == SQLITE_DONE && !m_aValues.empty();
    }

    uint32_t Query(const wchar_t* szName, void* pData, uint32_t* pdwCount) override
    {
        const std::string sName = Utf8(szName);
        const Value* p = Find(m_aChanges, sName);
        if (!p) {
            if (const Db db = m_bLoaded ? nullptr : OpenDatabase(false))
                Load(db);
            p = Find(m_aValues, sName);
        }
        if (!p)
            return STORE_NOT_FOUND;
        const auto n = static_cast<uint32_t>(p->abData.size());
        const bool bFits = n <= *pdwCount;
        if (bFits && n != 0)
            std::memcpy(pData, p->abData.data(), n);
        *pdwCount = n;
        return bFits ? STORE_OK : STORE_MORE_DATA;
    }

    uint32_t Set(const wchar_t* szName, uint32_t dwType, const void* pData, uint32_t dwSize) override
    {
        const auto* const p = static_cast<const uint8_t*>(pData);
        Value v{ Utf8(szName), dwType, std::vector<uint8_t>(p, p + dwSize) };
        if (Value* const pOld = Find(m_aChanges, v.sName))
            *pOld = std::move(v);
        else
            m_aChanges.push_back(std::move(v));
        return STORE_OK;
    }

private:
    static Value* Find(std::vector<Value>& a, const std::string& sName)
    {
        const auto it = std::find_if(a.begin(), a.end(), [&](const Value& v) {
            return sqlite3_stricmp(v.sName.c_str(), sName.c_str()) == 0;
        });
        return it == a.end() ? nullptr : &*it;
    }

    void Save()
    {
        if (m_aChanges.empty())
            return;
        const Db db = OpenDatabase(true);
        // IMMEDIATE: a second process waits here, where waiting is possible, and not in the middle.
        if (!db || !Execute(db, "BEGIN IMMEDIATE"))
            return;
        // Rows that keep their contents are not written, so a save without a change costs no disk access.
        bool bOk = Execute(db, "CREATE TABLE IF NOT EXISTS setting (key TEXT NOT NULL COLLATE NOCASE, "
                               "name TEXT NOT NULL COLLATE NOCASE, type INTEGER NOT NULL, bytes BLOB NOT NULL, "
                               "PRIMARY KEY (key, name)) WITHOUT ROWID");
        const Statement s = Prepare(db, "INSERT INTO setting VALUES (?1, ?2, ?3, ?4) ON CONFLICT DO UPDATE "
                                        "SET type = ?3, bytes = ?4 WHERE type <> ?3 OR bytes <> ?4");
        bOk = bOk && s;
        for (const Value& v : m_aChanges) {
            if (!bOk)
                break;
            BindText(s, 1, m_sKey);
            BindText(s, 2, v.sName);
            sqlite3_bind_int64(s.get(), 3, v.dwType);
            if (v.abData.empty())
                sqlite3_bind_zeroblob(s.get(), 4, 0);
            else
                sqlite3_bind_blob(s.get(), 4, v.abData.data(), static_cast<int>(v.abData.size()), SQLITE_TRANSIENT);
            bOk = sqlite3_step(s.get()) == SQLITE_DONE;
            sqlite3_reset(s.get());
        }
        Execute(db, bOk ? "COMMIT" : "ROLLBACK");  // a failed commit is rolled back when the database closes
    }

    const std::string m_sKey;
    std::vector<Value> m_aValues, m_aChanges;
    bool m_bLoaded = false;
};

}  // namespace

std::unique_ptr<SettingsKey> OpenSettings(const wchar_t* szKey)
{
    const Db db = OpenDatabase(false);
    if (!db)
        return nullptr;
    auto pKey = std::make_unique<DatabaseKey>(szKey);
    return pKey->Load(db) ? std::move(pKey) : nullptr;
}

std::unique_ptr<SettingsKey> CreateSettings(const wchar_t* szKey)
{
    const Db db = OpenDatabase(true);
    if (!db)
        return nullptr;
    return std::make_unique<DatabaseKey>(szKey);
}

}  // namespace platform
