// blockOut: the weekly bandwidth schedule ("BlockOutPeriods") and the one
// System V segment that shares it between the parent, its workers and every
// sending thread, each of which takes an equal share of the hour's limit.
#pragma once

#include <cstdint>
#include <ctime>

// 7 days of 24 hours, indexed weekday * 24 + hour (weekday 0 = Sunday, local
// time); each slot is a limit in bytes per second.
constexpr int kBandwidthSlots = 7 * 24;
constexpr size_t kBandwidthTableBytes = kBandwidthSlots * sizeof(uint32_t);  // 672
constexpr uint32_t kNoBandwidthLimit = 0xFFFFFFFFu;
constexpr uint32_t kMinBandwidth = 4096;  // no share and no limit goes below this

// Per-thread view of the table. Created detached: shmId -1, table the
// built-in all-unlimited table, readOnly 0. Freed (and detached) when its
// thread ends.
struct bandwidthHandle {
    void* attachedAddress;  // the mapping, or nullptr
    const uint32_t* table;  // the mapping, or the built-in table
    int shmId;              // -1 when none
    int readOnly;           // 1 after attachBandwidthTable
};

// The calling thread's handle, made on first use; nullptr when it cannot be
// made (logged: "Failed to malloc bandwidth table handle", "Either the
// once_control or init_routine is invalid.", "Insufficient memory exists to
// associate the value with the key.", "The key value is invalid."). Owned by
// the thread; never free it.
bandwidthHandle* getBandwidthHandle();

// The parent, once at start-up: creates the segment (672 bytes, mode 0600,
// keyed by ftok of /etc/default/tq.ini under the appliance root), attaches it
// read-write to this thread, fills it with "no limit" and at once marks it for
// removal, so it vanishes with the last detach even after a crash; children
// still attach it by id. Up to 2 tries. 0, or -1 with the thread left on the
// built-in table (each failure logged at level 0).
int createBandwidthTable();

// shmId of this thread's handle, -1 if none.
int getBandwidthTableId();

// Attaches this thread read-only to `shmId` unless it is already on that id.
// 0 when the thread is on `shmId` afterwards; -1 otherwise, logged "Can't
// attach to shared memory %d: %s\n", the thread then on the built-in table.
int attachBandwidthTable(int shmId);

// Back to the built-in table: shmdt if mapped, shmId -1, readOnly 0.
void detachBandwidthTable();

// Parses a schedule and writes it to this thread's table in one copy, so that
// readers see either the whole new schedule or "no limit" everywhere.
// "attach:<id>" instead attaches this thread read-only to segment <id>.
// 0, or -1 when the text is bad (each fault logged at level 0; the table is
// then unlimited) or when this thread's handle is read-only (nothing written).
// A thread on the built-in table parses but has nothing to write to.
int parseBlockOutPeriods(const char* text);

// Bytes per second this thread may send at time `when`: the slot's limit
// divided by the senders attached (the kernel's attach count less the
// parent), never below 4096; kNoBandwidthLimit when the slot is unlimited, or
// there is no handle or local time.
uint32_t getThreadBandwidth(time_t when);
