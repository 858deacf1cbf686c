// Measures storing a record. The floor is the same statement on a database that was created in the same way.
#include <sqlite3.h>

#include <array>
#include <memory>
#include <string>

#include "services.h"
#include "services/store_file.h"
#include "services_records.h"
#include "vqStore.h"

namespace kavel::bench {
namespace {

class BareStore {
  public:
    explicit BareStore(const std::string &path) : file_(path)
    {
        sqlite3_stmt *statement = nullptr;
        const char *const text = "INSERT INTO cpe_dnsmasq (vpn_id, conf) VALUES (?1, ?2)"
                                 " ON CONFLICT (vpn_id) DO UPDATE SET conf = excluded.conf";
        Expect(sqlite3_prepare_v3(file_.Get().Get(), text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) ==
                   SQLITE_OK,
               "preparing the statement failed");
        put_.reset(statement);
    }

    void Put(const std::string &text)
    {
        sqlite3_bind_int64(put_.get(), 1, kVpn);
        sqlite3_bind_text64(put_.get(), 2, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
        Expect(sqlite3_step(put_.get()) == SQLITE_DONE, "writing the row failed");
        sqlite3_reset(put_.get());
    }

  private:
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };

    agent::StoreFile file_;
    std::unique_ptr<sqlite3_stmt, Finalize> put_;
};

// Alternates between two texts: writing an unchanged row costs no write.
class Texts {
  public:
    explicit Texts(const Amounts &amounts) : texts_{RecordText(kVpn, amounts, 1), RecordText(kVpn, amounts, 2)} {}

    std::string &Next()
    {
        last_ = 1 - last_;
        return texts_[last_];
    }

  private:
    std::array<std::string, 2> texts_;
    std::size_t last_ = 0;
};

Comparison CompareRecords(const Setting &setting, BareStore &bare, const std::string &kind, const Amounts &amounts)
{
    Texts ours(amounts);
    Texts floor(amounts);
    return Compare(
        setting, {kind + " record stored", ours.Next().size(), "s", "the same SQLite statement", 1.2, {}, {}},
        [&] {
            const VQ_ERR_T result = VQ_SqliteDnsMasqConfOp(static_cast<BOOL>(kVpn), ours.Next().data(),
                                                           VQ_SQL_CONF_OP_ADD, VQ_SQL_CONF_CPE_DNSMASQ);
            Expect(result == 0, "storing a record failed");
        },
        [&] { bare.Put(floor.Next()); });
}

} // namespace

std::vector<Comparison> CompareStore(const Setting &setting)
{
    BareStore bare(setting.directory / "bare.db");
    return {CompareRecords(setting, bare, "ordinary", kOrdinary), CompareRecords(setting, bare, "large", kLarge)};
}

} // namespace kavel::bench
