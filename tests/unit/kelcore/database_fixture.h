#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "kel/debug.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kelcore/db/connection_pool.h"

/// Keeps log lines for inspection.
class CapturedLog : public KelDebugContext {
  public:
    void Write(KelDebugLevel level, const KelString&, const KelString& line) override {
        const std::lock_guard lock(mutex_);
        if (level >= KelDebugLevel::Warning) lines_.push_back(line);
    }
    KelDebugLevel Level() const override { return KelDebugLevel::Trace; }

    /// Warnings and errors since the last call.
    KelVector<KelString> Take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

  private:
    std::mutex mutex_;
    KelVector<KelString> lines_;
};

/// A folder of its own with one database file.
class DatabaseTest : public testing::Test {
  protected:
    DatabaseTest() {
        KelString pattern = testing::TempDir() + "kelcoreXXXXXX";
        folder_ = mkdtemp(pattern.data());
        path_ = folder_ + "/test.sqlite";
        log_.SetContext(captured_);
    }
    ~DatabaseTest() override { DirDelete(folder_, true); }

    std::unique_ptr<DBConnection> Open() { return OpenPath(path_); }

    std::unique_ptr<DBConnection> OpenPath(const KelString& path, bool serial = false) {
        DBConnectionPool pool;
        pool.SetDebug(log_);
        pool.SetSerialConnections(serial);
        pool.SetDatabase("SQLITE32", "", path, "", "", 0);
        return pool.CreateConnection();
    }

    /// The first value of a statement's first row; "(failed)" when it failed.
    static KelString Value(DBConnection& connection, const KelString& statement) {
        const auto result = connection.Query(statement);
        return result ? result->GetString(0, std::size_t{0}) : "(failed)";
    }

    KelString WriteIni(const KelString& content) {
        const KelString ini = folder_ + "/test.ini";
        EXPECT_TRUE(FileWriteText(ini, content));
        return ini;
    }

    std::shared_ptr<CapturedLog> captured_ = std::make_shared<CapturedLog>();
    KelDebug log_{"Test", "Test"};
    KelString folder_;
    KelString path_;
};
