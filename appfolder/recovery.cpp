#include "appfolder/recovery.h"

#include <cerrno>
#include <cstring>

#include "appfolder/log-component.h"
#include "appfolder/version-file.h"
#include "log/log.h"

namespace
{
using Journal = UpgradeJournal;

constexpr char kRecovered[] = "an interrupted upgrade has been undone\n"; // log readers search for it

Recovery NotRecovered(const AppFolder &app, const char *reason)
{
    LOGGER_ERROR(kServiceComponent, "no upgrade of '%s', %s: %s (%d)\n", app.Path().c_str(), reason, strerror(errno),
                 errno);
    return {Recovery::NOT_RECOVERED, {}};
}

// Ends a recovery: after it the journal is gone or, if an upgrade is due, says that. Returns false when the journal
// could not be updated: its old record stays, and the next start recovers again.
bool EndRecovery(const Journal &journal, Recovery::Condition condition, Recovery &recovery)
{
    recovery = {condition, {}};
    if (condition == Recovery::INTACT) {
        return journal.Remove() == 0;
    }
    recovery.record = Journal::Record{Journal::DUE, Journal::kNoBackup, false};
    return journal.Write(*recovery.record) == Journal::WRITTEN;
}

// Makes the complete backup with the highest build the missing app folder. A person may have removed a damaged copy,
// and needs a client until an upgrade has succeeded. `held` is what is in the journal.
Recovery RestoreBestBackup(const AppFolder &app, const Journal &journal, const Recovery &held)
{
    int best = Journal::kNoBackup;
    int bestBuild = 0;
    for (int n = 0; n < Journal::kBackupNames; ++n) {
        const Presence client = PresenceOfClient(app.Backup(n));
        if (client == UNKNOWN) {
            return NotRecovered(app, "the status of a backup cannot be read");
        }
        if (client == PRESENT) {
            const int build = BuildNumber(ReadVersionFile(app.Backup(n) + "/INFO")["build_version"]);
            if (best == Journal::kNoBackup || build > bestBuild) {
                best = n;
                bestBuild = build;
            }
        }
    }
    if (best == Journal::kNoBackup) {
        return held;
    }
    // Before the backup is restored, because it may be old: the next start must upgrade even if this one is
    // interrupted.
    Recovery recovery = held;
    const bool isUpdated =
        held.condition != Recovery::NOT_RECOVERED && EndRecovery(journal, Recovery::UPGRADE_DUE, recovery);
    if (!app.Restore(best)) {
        return NotRecovered(app, "a backup cannot be renamed to it");
    }
    LOGGER_NOTE(kServiceComponent, "'%s' was missing, '%s' is used until the next upgrade\n", app.Path().c_str(),
                app.Backup(best).c_str());
    if (isUpdated) {
        app.RemoveCopiedBackup(best);
    }
    return recovery;
}

// Undoes an upgrade whose record is MOVING or COPYING. `appPresence` is PRESENT or MISSING. Returns nothing when the
// backup is not there, or is not used.
std::optional<Recovery> Undo(const AppFolder &app, const Journal &journal, const Journal::Record &record,
                             Presence appPresence, const std::function<void()> &stopClient)
{
    const std::string backup = app.Backup(record.backup);
    const Presence presence = PresenceOf(backup);
    if (presence == UNKNOWN) {
        return NotRecovered(app, "the status of the backup cannot be read");
    }
    // In state MOVING the name of the backup may belong to another folder; then nothing was moved.
    if (presence == MISSING || (appPresence == PRESENT && record.state == Journal::MOVING)) {
        return std::nullopt;
    }
    if (appPresence == PRESENT && PresenceOfClient(app.Path()) == PRESENT) {
        // The backup may lack a part: it was incomplete, or the home was restored from an archive that was made during
        // an upgrade. Then keep the app folder, where a person may have put a copy.
        const Presence client = PresenceOfClient(backup);
        if (client == UNKNOWN) {
            return NotRecovered(app, "the status of the backup cannot be read");
        }
        if (client == MISSING) {
            return std::nullopt;
        }
    }
    if (appPresence == PRESENT) {
        stopClient();
    }
    if (!app.Restore(record.backup)) {
        return NotRecovered(app, "the backup cannot be renamed to it");
    }
    LOGGER_NOTE(kServiceComponent, "%s", kRecovered);
    Recovery recovery;
    if (EndRecovery(journal, record.isTrusted ? Recovery::INTACT : Recovery::UPGRADE_DUE, recovery)) {
        app.RemoveCopiedBackup(record.backup);
    }
    return recovery;
}

// Does the work of Recover(), but does not remove what was discarded.
Recovery FinishOrUndo(const AppFolder &app, const Journal &journal, const std::function<void()> &stopClient)
{
    const Presence presence = PresenceOf(app.Path());
    if (presence == UNKNOWN) {
        return NotRecovered(app, "its status cannot be read");
    }
    Journal::Record record;
    const Journal::ReadResult found = journal.Read(record);
    const bool isRead = found == Journal::READ;
    const bool mayHaveMoved = isRead && (record.state == Journal::MOVING || record.state == Journal::COPYING);
    if (mayHaveMoved && record.backup != Journal::kNoBackup) {
        if (const std::optional<Recovery> undone = Undo(app, journal, record, presence, stopClient)) {
            return *undone;
        }
    }
    Recovery recovery;
    if (found == Journal::UNREADABLE) {
        recovery.condition = Recovery::NOT_RECOVERED;
    } else if (isRead) {
        recovery = {Recovery::UPGRADE_DUE, record};
    }
    if (presence == MISSING) {
        return RestoreBestBackup(app, journal, recovery);
    }
    if (!isRead) {
        return recovery;
    }
    switch (record.state) {
    case Journal::MOVING:
        LOGGER_NOTE(kServiceComponent, "%s", kRecovered);
        EndRecovery(journal, record.isTrusted ? Recovery::INTACT : Recovery::UPGRADE_DUE, recovery);
        return recovery;
    case Journal::INSTALLED:
        app.RemoveBackups(record.backup);
        LOGGER_NOTE(kServiceComponent, "the backups of an upgrade have been removed\n");
        EndRecovery(journal, Recovery::INTACT, recovery);
        return recovery;
    default:
        LOGGER_NOTE(kServiceComponent, "the copy in '%s' may be incomplete, an upgrade is due\n", app.Path().c_str());
        return recovery;
    }
}
} // namespace

Recovery Recover(const AppFolder &app, const UpgradeJournal &journal, const std::function<void()> &stopClient)
{
    if (app.Path().empty()) {
        return {};
    }
    const Recovery recovery = FinishOrUndo(app, journal, stopClient);
    if (recovery.condition != Recovery::NOT_RECOVERED) {
        app.RemoveDiscarded();
    }
    return recovery;
}
