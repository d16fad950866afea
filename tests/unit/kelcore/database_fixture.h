#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "kel/debug.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/temp_folder.h"
#include "kelcore/db/connection_pool.h"
#include "kept_log.h"

/// A folder of its own with one database file, and a connection to it for the test that opens it.
class DatabaseTest : public testing::Test {
  protected:
    DatabaseTest() { log_.SetContext(kept_); }

    std::unique_ptr<DBConnection> OpenPath(const KelString& path, const KelString& kind = "SQLITE32") {
        DBConnectionPool pool;
        pool.SetDebug(log_);
        pool.SetDatabase(kind, "", path, "", "", 0);
        return pool.CreateConnection();
    }
    /// Closes what is open, then opens the file.
    bool Open() {
        db_.reset();
        db_ = OpenPath(path_);
        return db_ != nullptr;
    }
    bool Run(const KelString& statement) { return db_->Query(statement) != nullptr; }

    /// The first value of a statement's first row; "(failed)" when it failed.
    KelString Value(const KelString& statement) {
        const auto result = db_->Query(statement);
        return result ? result->GetString(0, std::size_t{0}) : "(failed)";
    }

    std::shared_ptr<KeptLog> kept_ = std::make_shared<KeptLog>();
    KelDebug log_{"Test", "Test"};
    const TempFolder folder_;
    const KelString path_ = folder_ / "test.sqlite";
    std::unique_ptr<DBConnection> db_;
};

/// The same with the database open already.
class OpenDatabaseTest : public DatabaseTest {
  protected:
    void SetUp() override { ASSERT_TRUE(Open()); }
};
