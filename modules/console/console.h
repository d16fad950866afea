#pragma once

#include <unordered_set>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/module.h"
#include "modules/console/device.h"
#include "modules/console/publication.h"

/// The console module of the master: knows the devices of the tree and publishes files to them. Its ini file
/// is read again at every use. Actions:
///
/// - ConsoleListDevices -> Values[i]{GUID, Name, Role, Address, Parent, PathName}, the master first
/// - ConsolePublish (FilePath, FileType, FileLabel; optional FileName, Device[i] (GUID or name, or one
/// "all"),
///   Priority, Bypass, WakeOnLan, KeepCopy, FileInfo) -> PublicationId, FileChecksum, FileSize (int64,
///   bytes), Targets (int32). A call from another device is refused, for it names a file of this one.
/// - QuarnelDbObjectListTypes -> Types[i]; QuarnelDbRunScript: not available here. Other modules tell a
/// master by them.
///
/// Results: 0; 1 for an unusable input; 17 not available; 18 when a file or folder cannot be written; what
/// the file store answers. Every result but 0 comes with a text Message.
class Console : public KelModule {
  public:
    Console();

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    void Activate() override;

  private:
    unsigned int ListDevices(KelContainer* arguments);
    unsigned int Publish(KelContainer* arguments);
    unsigned int Fail(KelContainer* arguments, const KelError& error);

    KelResult<Device> ReadMaster() const;
    KelResult<KelVector<Device>> ReadTree();
    bool IsCallerTrusted(const KelContainer& arguments) const;
    KelResult<KelContainer> PublishFile(const PublicationRequest& request);
    void LogProblemsOnce(const KelVector<KelString>& problems);

    KelMutex mutex_;
    std::unordered_set<KelString> loggedProblems_ KEL_GUARDED_BY(mutex_);  ///< of the present ini file
};
