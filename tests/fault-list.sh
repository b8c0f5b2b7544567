#!/usr/bin/env bash
# Deliberate faults that the test suite has to notice.
#
# Each entry below changes one line of the module or of CimStore in a way that breaks its
# behaviour (an off-by-one, a wrong number or HRESULT, a missing release, a changed text...)
# and names the CTest tests expected to notice. `check` applies the faults one at a time,
# rebuilds, runs those tests and puts the file back with git, so a fault the tests miss shows
# up as MISSED: either a gap in the tests or a fault that is no fault.
#
#   tests/fault-list.sh list              print the faults
#   tests/fault-list.sh verify [ID...]    only check that each fault's line is still there, once
#   tests/fault-list.sh check [ID...]     apply, build, test, restore (default: every fault)
#
# Environment: BUILD_DIR (default "build", relative to the checkout), an already configured
# build tree, as `make test` leaves it. SKIP_BASELINE=1 leaves out the first run of the chosen
# tests on the unchanged tree (without it a test that already fails would count as catching).
#
# Not part of `make test`, and slow: one incremental build and one test run per fault, and a
# final build that puts the unchanged binaries back. `check` refuses to start while the files
# it would change have uncommitted changes. Logs go to $BUILD_DIR/fault-list-logs/.
#
# Results: caught (the tests failed), MISSED (they passed), build-broken and stale (the
# fault's line is no longer found exactly once) mean the entry needs fixing, no-tests means
# its test pattern matches nothing, dirty that its file was changed while the run went on. Exit status: 1 when a fault was missed, 2 for entries
# that need fixing or a refusal, 0 otherwise. Entries marked "unsure" are ones where the
# suite may well have no test; they are here to find out.
#
# Entry format: "key: value" lines, a new entry at each "id:". "from" is the exact current
# text of part of one line (it must occur exactly once in the file), "to" its faulty
# replacement; both are taken literally. "tests" is a CTest regular expression (-R).

set -u -o pipefail

IFS= read -r -d '' FAULT_TABLE <<'EOF' || true
id: trace-level-word
area: trace
file: src/framework/CCQuillTrace.cpp
tests: ^TraceLineTest\.
what: the level word of level 4 loses its last letter
from: "\tInfo", "\tVerbose", "\tInfoCC"
to: "\tInfo", "\tVerbos", "\tInfoCC"

id: trace-size-tally
area: trace
file: src/framework/CCQuillTrace.cpp
tests: ^TraceSwitchTest\.
what: the size tally counts characters, not the UTF-16 bytes written
from: m_ulBytesWritten += 2 * m_ulLineLength;
to: m_ulBytesWritten += m_ulLineLength;

id: trace-history-limit
area: trace
file: src/framework/CCQuillTrace.cpp
tests: ^TraceSwitchTest\.
what: history numbering stops one short of 1000, overwriting number 999
from: while (uNumber < 1000 && FileExists(wsHistory.c_str()))
to: while (uNumber < 999 && FileExists(wsHistory.c_str()))

id: trace-switch-text
area: trace
file: src/framework/CCQuillTrace.cpp
tests: ^TraceSwitchTest\.
what: one word less in the fixed line written after a file switch
from: "MoveFileExW returned last error 0x%8.8lx, %s\n",
to: "MoveFileExW returned error 0x%8.8lx, %s\n",

id: err-line-break
area: error texts
file: src/access/ErrorText.cpp
tests: ^ErrorText\.
what: only carriage returns are cut from the end of a system text, the line feed stays
from: while (cch > 1 && (szText[cch - 1] == '\r' || szText[cch - 1] == '\n'))
to: while (cch > 1 && szText[cch - 1] == '\r')

id: err-row-text
area: error texts
file: src/access/WmiErrorTexts.cpp
tests: ^ErrorText\.
what: the text of 0x80041002 is reworded
from: {0x80041002, "The object could not be found."},
to: {0x80041002, "The object was not found."},

id: err-queue-facility
area: error texts
file: src/access/ErrorText.cpp
tests: ^ErrorText\.
what: the message queue facility number is 13 instead of 14
unsure: without MQUTIL.DLL (Wine) both paths end in the table, so no test may tell them apart
from: constexpr unsigned long kFacilityMessageQueue = 14;
to: constexpr unsigned long kFacilityMessageQueue = 13;

id: acc-assoc-query
area: access
file: src/access/CCWMIAccess.cpp
tests: ^WmiAccessTest\.
what: the association walk filters on AssocClass instead of ResultClass
from: "} WHERE ResultClass = " + m_szResultClass;
to: "} WHERE AssocClass = " + m_szResultClass;

id: acc-blanket-inverted
area: access
file: src/access/CCWMIAccess.cpp
tests: ^WmiAccessTest\.
what: a failing proxy blanket is tolerated outside a provider instead of inside
from: if (FAILED(hr) && !bInProvider)
to: if (FAILED(hr) && bInProvider)

id: acc-valuemap-last
area: access
file: src/access/CCWMIAccessProperties.cpp
tests: ^WmiAccessTest\.
what: the last ValueMap entry is compared too instead of standing for every unlisted value
from: for (; lIndex < lMapUpper; ++lIndex) {
to: for (; lIndex <= lMapUpper; ++lIndex) {

id: acc-attach-leak
area: access
file: src/access/CCWMIAccess.cpp
tests: ^KindTable/FaultSweep\.EveryStoreCallFailsAloneThenAllAtOnce/Id23([^0-9]|$)
what: AttachInstanceObject adds a reference instead of taking over the caller's (a leak per obsolete device)
from: TakeOwnership(m_pCurrentObject, pObject);
to: m_pCurrentObject = pObject;

id: asm-version-wildcard
area: component initialisation
file: src/framework/CCAssembly.cpp
tests: ^AssemblyTest\.
what: any identity version starting with a star matches, not just "*"
from: "((@version= \"%s\") or (@version= \"*\"))]",
to: "((@version= \"%s\") or starts-with(@version, \"*\"))]",

id: asm-folder-swap
area: component initialisation
file: src/framework/CCAssembly.cpp
tests: ^AssemblyTest\.
what: name and version swapped in a dependency's folder
from: record.szVersion, record.szName);
to: record.szName, record.szVersion);

id: asm-mutex-kept
area: component initialisation
file: src/framework/CCAssembly.cpp
tests: ^AssemblyTest\.
what: DllUninitialize no longer releases the named mutex
from: CriticalLeave();
to: (void)m_hMutex;

id: asm-expansion-limit
area: component initialisation
file: src/framework/CCAssembly.cpp
tests: ^AssemblyTest\.
what: a tables path that expands to exactly 259 characters is refused as too long
unsure: the table only has a path far over the limit, none at it
from: if (cchExpanded == 0 || cchExpanded > kTextChars)
to: if (cchExpanded == 0 || cchExpanded >= kTextChars)

id: evl-warning-bits
area: event log
file: src/framework/CCEventLog.cpp
tests: ^EventLogTest\.
what: a warning is logged with the severity bits of an information
from: return ulEventId | 0x80000000;
to: return ulEventId | 0x40000000;

id: evl-default-log
area: event log
file: src/framework/CCEventLogCond.cpp
tests: ^EventLogTest\.
what: a missing log name means System instead of Application
from: (szLog && *szLog) ? szLog : "Application";
to: (szLog && *szLog) ? szLog : "System";

id: evl-source-kept
area: event log
file: src/framework/CCEventLog.cpp
tests: ^EventLogTest\.
what: the event source is never deregistered (a leaked handle per report)
from: void operator()(HANDLE hLog) const { pfnDeregister(hLog); }
to: void operator()(HANDLE hLog) const { (void)hLog; }

id: evl-key-limit
area: event log
file: src/framework/CCEventLogCond.cpp
tests: ^EventLogTest\.
what: an activation key path of exactly 520 characters is cut and opened instead of refused
unsure: the test only has a path far over the limit, none at it
from: if (cch < 0 || static_cast<size_t>(cch) >= sizeof(szKey))
to: if (cch < 0 || static_cast<size_t>(cch) > sizeof(szKey))

id: base-first-type
area: notification base
file: src/core/CNotfyBase.cpp
tests: ^NotfyBaseTest\.
what: a first report in warning state gets EventType 3 instead of 1
from: (dwStatus == 2 || dwStatus == 3) ? 1 : 3
to: (dwStatus == 3) ? 1 : 3

id: base-rise-inverted
area: notification base
file: src/core/CNotfyBase.cpp
tests: ^NotfyBaseTest\.
what: rise and fall swapped against the stored status
from: ulStored < dwStatus ? 1 : lImprovedType
to: ulStored > dwStatus ? 1 : lImprovedType

id: base-missing-noput
area: notification base
file: src/core/CNotfyBase.cpp
tests: ^NotfyBaseTest\.|^TemperatureTest\.
what: an unchanged event no longer gets its NoPut qualifier
from: if (hrData == NOTFY_S_UNCHANGED) {
to: if (hrData == NOTFY_S_SKIP) {

id: base-gone-kept
area: notification base
file: src/core/CNotfyBase.cpp
tests: ^NotfyBaseTest\.
what: a stored event whose object is gone is not taken as obsolete
from: bool bObsolete = true;
to: bool bObsolete = false;

id: base-extra-addref
area: notification base
file: src/core/CNotfyBase.cpp
tests: ^NotfyBaseTest\.|^HandlerTest\.
what: every handed-out instance gets one reference too many
from: ppInstances[i]->AddRef();
to: ppInstances[i]->AddRef(); ppInstances[i]->AddRef();

id: cmn-standard-bias
area: common data
file: src/core/CNotificationModify.cpp
tests: ^EventTimeTest\.|^CommonDataTest\.
what: standard time is reported with the daylight bias
from: lBias = tzi.Bias + tzi.StandardBias;
to: lBias = tzi.Bias + tzi.DaylightBias;

id: thr-high-warning
area: common data
file: src/core/ThresholdState.cpp
tests: ^ThresholdStateTest\.|^ThresholdQueryTest\.
what: a value equal to HighWarning is no longer a warning
from: ullCurrent >= static_cast<ULONGLONG>(*limits.llHighWarning)
to: ullCurrent > static_cast<ULONGLONG>(*limits.llHighWarning)

id: ev-quote-backslash
area: common data
file: src/core/EventValues.cpp
tests: ^SmartFanAgeingTest\.|^CoverTest\.|^CoverOpening\.
what: backslashes are not escaped in a quoted query or path value
from: if (wc == L'"' || wc == L'\\')
to: if (wc == L'"')

id: ev-continue-text
area: common data
file: src/core/EventValues.cpp
tests: ^TemperatureTest\.|^VoltageFanTest\.
what: the per-item warning line reads "a" instead of "an"
from: "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just "
to: "Catching a self-thrown HRESULT exception. This usually indicates an error, but I just "

id: hdl-unknown-id
area: handler
file: src/core/CNotificationHandler.cpp
tests: ^HandlerTest\.
what: an unknown id fails GetInstances with E_FAIL instead of E_INVALIDARG
from: RaiseHr(E_INVALIDARG, kName,
to: RaiseHr(E_FAIL, kName,

id: hdl-array-addref
area: handler
file: src/core/CNotificationHandler.cpp
tests: ^HandlerTest\.
what: the handler keeps an extra reference on every instance it puts into the array
from: instances[static_cast<size_t>(i)].Reset();
to: instances[static_cast<size_t>(i)]->AddRef();

id: hdl-table-kind
area: handler
file: src/core/CNotificationHandler.cpp
tests: ^IdTable\.
what: id 64 creates the physical disk kind
from: {64, "CNotfyVideoAdapterChange", &CreateKind<CNotfyVideoAdapterChange>},
to: {64, "CNotfyVideoAdapterChange", &CreateKind<CNotfyPhysicalHDDChange>},

id: reg-force-remove
area: registration
file: src/module/CCRegistrar.cpp
tests: ^RegistrarTest\.
what: ForceRemove no longer deletes the key before writing it
from: const LSTATUS status = DeleteTree(hParent, entry.wsName);
to: const LSTATUS status = ERROR_SUCCESS;

id: reg-quote
area: registration
file: src/module/CCRegistrar.cpp
tests: ^RegistrarTest\.
what: a doubled quote in a script text becomes a double quote character
from: token.wsText += L'\'';
to: token.wsText += L'"';

id: reg-unlock-server
area: registration
file: src/module/CCClassFactory.cpp
tests: ^HandlerTest\.
what: LockServer(FALSE) locks the module once more
from:         _Module.Unlock();
to:         _Module.Lock();

id: reg-progid
area: registration
file: src/module/ServerExports.cpp
tests: ^ServerRegistrationTest\.
what: the versioned ProgID is registered as 1.6
from: L"Moradel.NotificationHandler.1.06",
to: L"Moradel.NotificationHandler.1.6",

id: cs-path-backslash
area: cimstore
file: cimstore/ObjectPath.cpp
tests: ^cimstorePath\.|^cimstorePathLookup\.
what: backslashes are not escaped in the key values of a path
from: if (ch == L'"' || ch == L'\\')
to: if (ch == L'"')

id: cs-wql-ge
area: cimstore
file: cimstore/WqlQuery.cpp
tests: ^cimstoreWql\.
what: ">=" in a WHERE clause is evaluated as ">"
from: case WqlOp::Ge: return r >= 0;
to: case WqlOp::Ge: return r > 0;

id: cs-fault-nth
area: cimstore
file: cimstore/com/StoreState.cpp
tests: ^ServiceBehaviourTest\.
what: a fault armed for the Nth call also hits every later call
from: if (rule.nth == 0 || rule.nth == rule.seen)
to: if (rule.nth == 0 || rule.nth <= rule.seen)

id: cs-save-published
area: cimstore
file: cimstore/RepositoryFolder.cpp
tests: ^PersistenceTest\.
what: a save that fails before publishing still moves the new state file into place
from: if (FAILED(hr)) {
to: if (hr == E_FAIL) {

id: cs-clone-position
area: cimstore
file: cimstore/com/CimEnumerator.cpp
tests: ^ServiceObjectsTest\.
what: a cloned enumerator starts at the beginning instead of the original's position
from: *ppEnum = new CimEnumerator(m_results, m_wsSubject, m_position);
to: *ppEnum = new CimEnumerator(m_results, m_wsSubject, 0);

id: cs-skip-exact
area: cimstore
file: cimstore/com/CimEnumerator.cpp
tests: ^ServiceObjectsTest\.
what: skipping exactly the remaining objects answers WBEM_S_FALSE instead of S_OK
unsure: the test skips fewer or more than remain, never exactly as many
from: if (nCount > remaining) {
to: if (nCount >= remaining) {

id: temp-message
area: sensors
file: src/notifications/sensors/CNotfyTemperature.cpp
tests: ^TemperatureClassify\.|^TemperatureTest\.
what: the system probe's upper critical message is 7018 instead of 7017
from: constexpr CSensorMessages kSystemProbe = {7021, 7013, 7017, 7005, 7025, 7025, 7009};
to: constexpr CSensorMessages kSystemProbe = {7021, 7013, 7018, 7005, 7025, 7025, 7009};

id: temp-absent-reported
area: sensors
file: src/notifications/sensors/CNotfyTemperature.cpp
tests: ^TemperatureTest\.
what: a probe with SensorPresent = false is not skipped
from: if (FAILED(hr) || present.Type() != VT_BOOL || V_BOOL(&present.Get()) == VARIANT_FALSE)
to: if (FAILED(hr) || present.Type() != VT_BOOL)

id: sensor-upper-critical
area: sensors
file: src/notifications/sensors/SensorReadings.cpp
tests: ^TemperatureClassify\.|^VoltageClassify\.
what: a reading equal to the upper critical threshold is not critical
from: {lReading >= limits.lUpperCritical, 3, messages.lUpperCritical},
to: {lReading > limits.lUpperCritical, 3, messages.lUpperCritical},

id: fan-last-numbered
area: sensors
file: src/notifications/sensors/CNotfyFanMonitoring.cpp
tests: ^FanKinds\.|^VoltageFanTest\.
what: fan 12 is an unknown fan
from: lSensorId <= static_cast<LONG>(std::size(kNumberedFans))
to: lSensorId < static_cast<LONG>(std::size(kNumberedFans))

id: volt-rename-change
area: sensors
file: src/notifications/sensors/CNotfyVoltage.cpp
tests: ^VoltageFanTest\.
what: a renamed voltage probe in the same state is reported as a change
from: StoredDiffers({"EventTextId"})
to: StoredDiffers({"EventTextId", "Name"})

id: smart-threshold
area: sensors
file: src/notifications/sensors/CNotfyHardDisksSMART.cpp
tests: ^SmartClassify\.|^SmartFanAgeingTest\.
what: an attribute at its threshold is not critical
from: if (attribute.ulValue <= attribute.ulThreshold)
to: if (attribute.ulValue < attribute.ulThreshold)

id: inv-added-message
area: inventory
file: src/notifications/inventory/CNotfyInventoryChange.cpp
tests: ^DeviceChangeTest\.|^VideoAdapterTest\.
what: an added item gets the removal message (x003) instead of x002
from: outcome == EInventoryOutcome::Added ? 2 :
to: outcome == EInventoryOutcome::Added ? 3 :

id: inv-removed-type
area: inventory
file: src/notifications/inventory/CNotfyInventoryChange.cpp
tests: ^DeviceChangeTest\.
what: a removal is reported with EventType 3 (unchanged) instead of 5
from: PutI4(m_wmi, "EventType", kTypeInventory)
to: PutI4(m_wmi, "EventType", kTypeUnchanged)

id: free-unspecified
area: inventory
file: src/notifications/inventory/CNotfyHardDisksFreeSpace.cpp
tests: ^MeasuredValuesTest\.
what: a disk in an unspecified state (no limits) is reported instead of skipped
from: if (ulState < 1 || ulState > 3)
to: if (ulState > 3)

id: list-filter-swap
area: inventory
file: src/notifications/inventory/ListComparison.cpp
tests: ^ListComparison\.|^AutoStartServiceTest\.
what: removals are looked for with the two lists swapped
from: changes.removed = Unmatched(old, MakeSet(current), isOldFiltered);
to: changes.removed = Unmatched(current, MakeSet(old), isOldFiltered);

id: list-fold-z
area: inventory
file: src/notifications/inventory/ListComparison.cpp
tests: ^ListComparison\.|^AutoStartServiceTest\.
what: Z is not folded to z when entries are compared
unsure: no test text seems to hold a Z that differs only in case
from: return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
to: return (c >= L'A' && c < L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;

id: proc-missing-id
area: inventory
file: src/notifications/inventory/CNotfyProcessorChange.cpp
tests: ^ProcessorChangeRules\.|^ProcessorDisplayTest\.
what: a processor id missing on one side counts as a different processor
from: if (wsStored.empty() || wsCurrent.empty())
to: if (wsStored.empty() && wsCurrent.empty())

id: bios-back-type
area: inventory
file: src/notifications/inventory/CNotfyBiosSettingsChange.cpp
tests: ^BiosSettingsTest\.
what: the return to the nominal value is reported with EventType 2 instead of 3
from: SetEventTypeFromStored(dwStatus, 3, kName,
to: SetEventTypeFromStored(dwStatus, 2, kName,
EOF
export FAULT_TABLE

# Table access and the literal, checked replacement.
fault_tool()
{
    python3 - "$@" <<'PY'
import os
import sys

KEYS = ("id", "area", "file", "tests", "what", "from", "to")


def parse():
    entries = []
    for number, line in enumerate(os.environ["FAULT_TABLE"].split("\n"), 1):
        if not line.strip():
            continue
        key, sep, value = line.partition(": ")
        if not sep:
            sys.exit(f"fault table line {number}: no 'key: value': {line!r}")
        if key == "id":
            entries.append({})
        elif not entries:
            sys.exit(f"fault table line {number}: '{key}' before the first id")
        if key in entries[-1]:
            sys.exit(f"fault table line {number}: '{key}' twice in one entry")
        entries[-1][key] = value
    seen = set()
    for entry in entries:
        missing = [key for key in KEYS if key not in entry]
        if missing:
            sys.exit(f"fault {entry.get('id', '?')}: missing {', '.join(missing)}")
        if entry["id"] in seen:
            sys.exit(f"fault {entry['id']}: id used twice")
        if entry["from"] == entry["to"]:
            sys.exit(f"fault {entry['id']}: the replacement changes nothing")
        seen.add(entry["id"])
    return entries


def select(entries, ids):
    if not ids:
        return entries
    by_id = {entry["id"]: entry for entry in entries}
    unknown = [i for i in ids if i not in by_id]
    if unknown:
        sys.exit("unknown fault id: " + ", ".join(unknown))
    return [by_id[i] for i in ids]


def occurrences(entry):
    try:
        with open(entry["file"], "rb") as f:
            return f.read().count(entry["from"].encode("utf-8"))
    except OSError:
        return -1


def main(argv):
    entries = parse()
    command, args = argv[0], argv[1:]
    if command == "ids":
        for entry in select(entries, args):
            print(entry["id"])
    elif command == "files":
        files = []
        for entry in select(entries, args):
            if entry["file"] not in files:
                files.append(entry["file"])
        print("\n".join(files))
    elif command == "get":
        entry = select(entries, [args[0]])[0]
        key = args[1]
        sys.stdout.write(entry.get(key, ""))
    elif command == "count":
        print(occurrences(select(entries, [args[0]])[0]))
    elif command == "apply":
        entry = select(entries, [args[0]])[0]
        with open(entry["file"], "rb") as f:
            text = f.read()
        old = entry["from"].encode("utf-8")
        if text.count(old) != 1:
            sys.exit(f"{entry['id']}: the line is not found exactly once in {entry['file']}")
        with open(entry["file"], "wb") as f:
            f.write(text.replace(old, entry["to"].encode("utf-8"), 1))
    elif command == "verify":
        bad = 0
        for entry in select(entries, args):
            n = occurrences(entry)
            state = "ok" if n == 1 else ("file missing" if n < 0 else f"stale ({n} occurrences)")
            bad += n != 1
            print(f"{entry['id']:<24} {state:<22} {entry['file']}")
        print(f"{len(select(entries, args))} faults, {bad} to fix")
        return 1 if bad else 0
    elif command == "list":
        chosen = select(entries, args)
        for entry in chosen:
            print(f"{entry['id']}  [{entry['area']}]  {entry['file']}")
            print(f"    {entry['what']}")
            if "unsure" in entry:
                print(f"    unsure: {entry['unsure']}")
            print(f"    tests: {entry['tests']}")
            print(f"    line:  {entry['from']}")
            print(f"    fault: {entry['to']}")
        areas = {}
        for entry in chosen:
            areas[entry["area"]] = areas.get(entry["area"], 0) + 1
        print(f"{len(chosen)} faults: " + ", ".join(f"{a} {n}" for a, n in areas.items()))
    else:
        sys.exit(f"unknown helper command {command}")
    return 0


sys.exit(main(sys.argv[1:]))
PY
}

usage()
{
    sed -n '2,/^$/s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}

ROOT=$(git -C "$(dirname "${BASH_SOURCE[0]}")" rev-parse --show-toplevel) || exit 2
cd "$ROOT" || exit 2
BUILD_DIR=${BUILD_DIR:-build}
LOG_DIR="$BUILD_DIR/fault-list-logs"

CURRENT_FILE=""
FAULTY_BUILD=0

restore()
{
    if [ -n "$CURRENT_FILE" ]; then
        git checkout -- "$CURRENT_FILE"
        CURRENT_FILE=""
    fi
}

on_interrupt()
{
    restore
    echo
    echo "Interrupted; the source is restored."
    if [ "$FAULTY_BUILD" = 1 ]; then
        echo "$BUILD_DIR may still hold a faulty build: run cmake --build $BUILD_DIR before testing."
    fi
    exit 130
}

build()
{
    cmake --build "$BUILD_DIR" -j2 >"$1" 2>&1
}

# Number of tests a pattern selects.
test_count()
{
    local total
    total=$(ctest --test-dir "$BUILD_DIR" -N -R "$1" 2>/dev/null | sed -n 's/^Total Tests: *//p')
    echo "${total:-0}"
}

check()
{
    local ids_text files_text dirty id
    ids_text=$(fault_tool ids "$@") || exit 2
    files_text=$(fault_tool files "$@") || exit 2
    local -a IDS FILES
    mapfile -t IDS <<<"$ids_text"
    mapfile -t FILES <<<"$files_text"

    dirty=$(git status --porcelain -- "${FILES[@]}")
    if [ -n "$dirty" ]; then
        echo "Refusing to run: these files have uncommitted changes (commit or stash them first):"
        echo "$dirty"
        exit 2
    fi
    if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
        echo "No configured build in $BUILD_DIR: run make test once (or set BUILD_DIR)."
        exit 2
    fi
    mkdir -p "$LOG_DIR" || exit 2

    trap restore EXIT
    trap on_interrupt INT TERM

    if [ "${SKIP_BASELINE:-0}" != 1 ]; then
        local union="" regex
        for id in "${IDS[@]}"; do
            regex=$(fault_tool get "$id" tests)
            union="${union:+$union|}$regex"
        done
        echo "Baseline: building and running the chosen tests on the unchanged tree..."
        if ! build "$LOG_DIR/baseline.build.log"; then
            echo "The unchanged tree does not build; see $LOG_DIR/baseline.build.log"
            exit 2
        fi
        if ! ctest --test-dir "$BUILD_DIR" -j2 -R "$union" --output-on-failure >"$LOG_DIR/baseline.ctest.log" 2>&1
        then
            echo "Tests fail without any fault; see $LOG_DIR/baseline.ctest.log"
            exit 2
        fi
    fi

    local -A RESULT
    local total=${#IDS[@]} n=0 file tests count started result
    for id in "${IDS[@]}"; do
        n=$((n + 1))
        file=$(fault_tool get "$id" file)
        tests=$(fault_tool get "$id" tests)
        started=$SECONDS
        if [ -n "$(git status --porcelain -- "$file")" ]; then
            result="dirty"  # not in its committed state: restoring it would lose work
        else
            count=$(fault_tool count "$id")
            if [ "$count" != 1 ]; then
                result="stale"
            else
                CURRENT_FILE=$file
                if ! fault_tool apply "$id"; then
                    result="stale"
                else
                    FAULTY_BUILD=1
                    if ! build "$LOG_DIR/$id.build.log"; then
                        result="build-broken"
                    elif [ "$(test_count "$tests")" = 0 ]; then
                        result="no-tests"
                    elif ctest --test-dir "$BUILD_DIR" -j2 -R "$tests" --output-on-failure \
                        >"$LOG_DIR/$id.ctest.log" 2>&1; then
                        result="MISSED"
                    else
                        result="caught"
                    fi
                fi
                restore
            fi
        fi
        RESULT[$id]=$result
        printf '[%d/%d] %-24s %-13s (%d s)\n' "$n" "$total" "$id" "$result" $((SECONDS - started))
    done

    if [ "$FAULTY_BUILD" = 1 ]; then
        echo "Rebuilding the unchanged tree..."
        if build "$LOG_DIR/final.build.log"; then
            FAULTY_BUILD=0
        else
            echo "The final build failed; see $LOG_DIR/final.build.log"
        fi
    fi

    echo
    printf '%-24s %-26s %-13s %s\n' "FAULT" "AREA" "RESULT" "NOTE"
    local missed=0 broken=0 caught=0 area note
    for id in "${IDS[@]}"; do
        area=$(fault_tool get "$id" area)
        note=""
        [ -n "$(fault_tool get "$id" unsure)" ] && note="unsure"
        printf '%-24s %-26s %-13s %s\n' "$id" "$area" "${RESULT[$id]}" "$note"
        case ${RESULT[$id]} in
        caught) caught=$((caught + 1)) ;;
        MISSED) missed=$((missed + 1)) ;;
        *) broken=$((broken + 1)) ;;
        esac
    done
    echo
    echo "$caught caught, $missed missed, $broken to fix (logs in $LOG_DIR)"
    if [ "$missed" -gt 0 ]; then
        exit 1
    fi
    if [ "$broken" -gt 0 ]; then
        exit 2
    fi
    exit 0
}

command=${1:-}
[ $# -gt 0 ] && shift
case $command in
list) fault_tool list "$@" ;;
verify) fault_tool verify "$@" ;;
check) check "$@" ;;
-h | --help | help) usage ;;
*)
    usage
    exit 2
    ;;
esac
