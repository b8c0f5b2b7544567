#!/usr/bin/env python3
"""Deliberate faults that the test suite has to notice.

Each entry changes one line of the module or of CimStore so that it misbehaves and names the
CTest tests (a -R regex) that must then fail. `check` applies the faults one at a time,
rebuilds, runs those tests and restores the file with git: a fault the tests miss is MISSED.

  tests/fault-list.py list | verify | check [ID...]

BUILD_DIR (default "build") is a configured build tree, as `make test` leaves it. SKIP_BASELINE=1
skips running the chosen tests once on the unchanged tree first. Not part of `make test`: one
incremental build and test run per fault. Logs go to $BUILD_DIR/fault-list-logs/. Exit status 1
when a fault was missed, 2 when an entry needs fixing (stale line, broken build, no tests).

Entry: "id  file  tests", then "# what", optionally "? why the suite may not notice", then
"- text" (exactly once in the file) and "+ its faulty replacement", both taken literally.
"""
import os
import re
import subprocess
import sys
import time

TABLE = r'''
trace-level-word  src/framework/CCQuillTrace.cpp  ^TraceLineTest\.
  # the level word of level 4 loses its last letter
  - "\tInfo", "\tVerbose", "\tInfoCC"
  + "\tInfo", "\tVerbos", "\tInfoCC"
trace-size-tally  src/framework/CCQuillTrace.cpp  ^TraceSwitchTest\.
  # the size tally counts characters, not the UTF-16 bytes written
  - m_ulBytesWritten += 2 * m_ulLineLength;
  + m_ulBytesWritten += m_ulLineLength;
trace-history-limit  src/framework/CCQuillTrace.cpp  ^TraceSwitchTest\.
  # history numbering stops one short of 1000, overwriting number 999
  - while (uNumber < 1000 && FileExists(wsHistory.c_str()))
  + while (uNumber < 999 && FileExists(wsHistory.c_str()))
trace-switch-text  src/framework/CCQuillTrace.cpp  ^TraceSwitchTest\.
  # one word less in the fixed line written after a file switch
  - "MoveFileExW returned last error 0x%8.8lx, %s\n",
  + "MoveFileExW returned error 0x%8.8lx, %s\n",
err-line-break  src/access/ErrorText.cpp  ^ErrorText\.
  # only carriage returns are cut from the end of a system text, the line feed stays
  - while (cch > 1 && (szText[cch - 1] == '\r' || szText[cch - 1] == '\n'))
  + while (cch > 1 && szText[cch - 1] == '\r')
err-row-text  src/access/WmiErrorTexts.cpp  ^ErrorText\.
  # the text of 0x80041002 is reworded
  - {0x80041002, "The object could not be found."},
  + {0x80041002, "The object was not found."},
err-unknown-text  src/access/ErrorText.cpp  ^ErrorText\.
  # a code in no table answers another text than "unknown"
  - CopyBounded(s_szResult, pRow->ulCode != 0 ? pRow->szText : "unknown", kResultSize - 1);
  + CopyBounded(s_szResult, pRow->ulCode != 0 ? pRow->szText : "unknown error", kResultSize - 1);
acc-assoc-query  src/access/CCWMIAccess.cpp  ^WmiAccessTest\.
  # the association walk filters on AssocClass instead of ResultClass
  - "} WHERE ResultClass = " + m_szResultClass;
  + "} WHERE AssocClass = " + m_szResultClass;
acc-blanket-inverted  src/access/CCWMIAccess.cpp  ^WmiAccessTest\.
  # a failing proxy blanket is tolerated outside a provider instead of inside
  - if (FAILED(hr) && !bInProvider)
  + if (FAILED(hr) && bInProvider)
acc-valuemap-last  src/access/CCWMIAccessProperties.cpp  ^WmiAccessTest\.
  # the last ValueMap entry is compared too instead of standing for every unlisted value
  - for (; lIndex < lMapUpper; ++lIndex) {
  + for (; lIndex <= lMapUpper; ++lIndex) {
acc-attach-leak  src/access/CCWMIAccess.cpp  ^KindTable/FaultSweep\.EveryStoreCallFailsAloneThenAllAtOnce/Id23([^0-9]|$)
  # AttachInstanceObject adds a reference instead of taking over the caller's (a leak per obsolete device)
  - TakeOwnership(m_pCurrentObject, pObject);
  + m_pCurrentObject = pObject;
asm-version-wildcard  src/framework/CCAssembly.cpp  ^AssemblyTest\.
  # any identity version starting with a star matches, not just "*"
  - "((@version= \"%s\") or (@version= \"*\"))]",
  + "((@version= \"%s\") or starts-with(@version, \"*\"))]",
asm-folder-swap  src/framework/CCAssembly.cpp  ^AssemblyTest\.
  # name and version swapped in a dependency's folder
  - record.szVersion, record.szName);
  + record.szName, record.szVersion);
asm-mutex-kept  src/framework/CCAssembly.cpp  ^AssemblyTest\.
  # DllUninitialize no longer releases the named mutex
  - CriticalLeave();
  + (void)m_hMutex;
asm-expansion-limit  src/framework/CCAssembly.cpp  ^AssemblyTest\.
  # a tables path that expands to exactly 259 characters is refused as too long
  ? the table only has a path far over the limit, none at it
  - if (cchExpanded == 0 || cchExpanded > kTextChars)
  + if (cchExpanded == 0 || cchExpanded >= kTextChars)
evl-warning-bits  src/framework/CCEventLog.cpp  ^EventLogTest\.
  # a warning is logged with the severity bits of an information
  - return ulEventId | 0x80000000;
  + return ulEventId | 0x40000000;
evl-default-log  src/framework/CCEventLogCond.cpp  ^EventLogTest\.
  # a missing log name means System instead of Application
  - (szLog && *szLog) ? szLog : "Application";
  + (szLog && *szLog) ? szLog : "System";
evl-source-kept  src/framework/CCEventLog.cpp  ^EventLogTest\.
  # the event source is never deregistered (a leaked handle per report)
  - void operator()(HANDLE hLog) const { pfnDeregister(hLog); }
  + void operator()(HANDLE hLog) const { (void)hLog; }
evl-active-missing  src/framework/CCEventLogCond.cpp  ^EventLogTest\.
  # an activation key without an Active value counts as active
  - return trace.ReturnBool(lResult == ERROR_SUCCESS && dwActive != 0) ? 1 : 0;
  + return trace.ReturnBool(lResult != ERROR_SUCCESS || dwActive != 0) ? 1 : 0;
base-first-type  src/core/CNotfyBase.cpp  ^NotfyBaseTest\.
  # a first report in warning state gets EventType 3 instead of 1
  - (dwStatus == 2 || dwStatus == 3) ? 1 : 3
  + (dwStatus == 3) ? 1 : 3
base-rise-inverted  src/core/CNotfyBase.cpp  ^NotfyBaseTest\.
  # rise and fall swapped against the stored status
  - ulStored < dwStatus ? 1 : lImprovedType
  + ulStored > dwStatus ? 1 : lImprovedType
base-missing-noput  src/core/CNotfyBase.cpp  ^NotfyBaseTest\.|^TemperatureTest\.
  # an unchanged event no longer gets its NoPut qualifier
  - if (hrData == NOTFY_S_UNCHANGED) {
  + if (hrData == NOTFY_S_SKIP) {
base-gone-kept  src/core/CNotfyBase.cpp  ^NotfyBaseTest\.
  # a stored event whose object is gone is not taken as obsolete
  - bool bObsolete = true;
  + bool bObsolete = false;
base-extra-addref  src/core/CNotfyBase.cpp  ^NotfyBaseTest\.|^HandlerTest\.
  # every handed-out instance gets one reference too many
  - ppInstances[i]->AddRef();
  + ppInstances[i]->AddRef(); ppInstances[i]->AddRef();
cmn-standard-bias  src/core/CNotificationModify.cpp  ^EventTimeTest\.|^CommonDataTest\.
  # standard time is reported with the daylight bias
  - lBias = tzi.Bias + tzi.StandardBias;
  + lBias = tzi.Bias + tzi.DaylightBias;
thr-high-warning  src/core/ThresholdState.cpp  ^ThresholdStateTest\.|^ThresholdQueryTest\.
  # a value equal to HighWarning is no longer a warning
  - ullCurrent >= static_cast<ULONGLONG>(*limits.llHighWarning)
  + ullCurrent > static_cast<ULONGLONG>(*limits.llHighWarning)
ev-quote-backslash  src/core/EventValues.cpp  ^SmartFanAgeingTest\.|^CoverTest\.|^CoverOpening\.
  # backslashes are not escaped in a quoted query or path value
  - if (wc == L'"' || wc == L'\\')
  + if (wc == L'"')
ev-continue-text  src/core/EventValues.cpp  ^TemperatureTest\.|^VoltageFanTest\.
  # the per-item warning line reads "a" instead of "an"
  - "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just "
  + "Catching a self-thrown HRESULT exception. This usually indicates an error, but I just "
hdl-unknown-id  src/core/CNotificationHandler.cpp  ^HandlerTest\.
  # an unknown id fails GetInstances with E_FAIL instead of E_INVALIDARG
  - RaiseHr(E_INVALIDARG, kName,
  + RaiseHr(E_FAIL, kName,
hdl-array-addref  src/core/CNotificationHandler.cpp  ^HandlerTest\.
  # the handler keeps an extra reference on every instance it puts into the array
  - instances[static_cast<size_t>(i)].Reset();
  + instances[static_cast<size_t>(i)]->AddRef();
hdl-table-kind  src/core/CNotificationHandler.cpp  ^IdTable\.
  # id 64 creates the physical disk kind
  - {64, "CNotfyVideoAdapterChange", &CreateKind<CNotfyVideoAdapterChange>},
  + {64, "CNotfyVideoAdapterChange", &CreateKind<CNotfyPhysicalHDDChange>},
reg-force-remove  src/module/CCRegistrar.cpp  ^RegistrarTest\.
  # ForceRemove no longer deletes the key before writing it
  - const LSTATUS status = DeleteTree(hParent, entry.wsName);
  + const LSTATUS status = ERROR_SUCCESS;
reg-quote  src/module/CCRegistrar.cpp  ^RegistrarTest\.
  # a doubled quote in a script text becomes a double quote character
  - token.wsText += L'\'';
  + token.wsText += L'"';
reg-unlock-server  src/module/CCClassFactory.cpp  ^HandlerTest\.
  # LockServer(FALSE) locks the module once more
  -         _Module.Unlock();
  +         _Module.Lock();
reg-progid  src/module/ServerExports.cpp  ^ServerRegistrationTest\.
  # the versioned ProgID is registered as 1.6
  - L"Moradel.NotificationHandler.1.06",
  + L"Moradel.NotificationHandler.1.6",
cs-path-backslash  cimstore/ObjectPath.cpp  ^cimstorePath\.|^cimstorePathLookup\.
  # backslashes are not escaped in the key values of a path
  - if (ch == L'"' || ch == L'\\')
  + if (ch == L'"')
cs-wql-ge  cimstore/WqlQuery.cpp  ^cimstoreWql\.
  # ">=" in a WHERE clause is evaluated as ">"
  - case WqlOp::Ge: return r >= 0;
  + case WqlOp::Ge: return r > 0;
cs-fault-nth  cimstore/com/StoreState.cpp  ^ServiceBehaviourTest\.
  # a fault armed for the Nth call also hits every later call
  - if (rule.nth == 0 || rule.nth == rule.seen)
  + if (rule.nth == 0 || rule.nth <= rule.seen)
cs-save-published  cimstore/RepositoryFolder.cpp  ^PersistenceTest\.|^cimstoreFolder\.
  # a save that fails before publishing still moves the new state file into place
  - if (FAILED(hr)) {
  + if (hr == E_FAIL) {
cs-clone-position  cimstore/com/CimEnumerator.cpp  ^ServiceObjectsTest\.
  # a cloned enumerator starts at the beginning instead of the original's position
  - *ppEnum = new CimEnumerator(m_results, m_wsSubject, m_position);
  + *ppEnum = new CimEnumerator(m_results, m_wsSubject, 0);
cs-skip-exact  cimstore/com/CimEnumerator.cpp  ^ServiceObjectsTest\.
  # skipping exactly the remaining objects answers WBEM_S_FALSE instead of S_OK
  ? the test skips fewer or more than remain, never exactly as many
  - if (nCount > remaining) {
  + if (nCount >= remaining) {
temp-message  src/notifications/sensors/CNotfyTemperature.cpp  ^TemperatureClassify\.|^TemperatureTest\.
  # the system probe's upper critical message is 7018 instead of 7017
  - constexpr CSensorMessages kSystemProbe = {7021, 7013, 7017, 7005, 7025, 7025, 7009};
  + constexpr CSensorMessages kSystemProbe = {7021, 7013, 7018, 7005, 7025, 7025, 7009};
temp-absent-reported  src/notifications/sensors/CNotfyTemperature.cpp  ^TemperatureTest\.
  # a probe with SensorPresent = false is not skipped
  - if (FAILED(hr) || present.Type() != VT_BOOL || V_BOOL(&present.Get()) == VARIANT_FALSE)
  + if (FAILED(hr) || present.Type() != VT_BOOL)
sensor-upper-critical  src/notifications/sensors/SensorReadings.cpp  ^TemperatureClassify\.|^VoltageClassify\.
  # a reading equal to the upper critical threshold is not critical
  - {lReading >= limits.lUpperCritical, 3, messages.lUpperCritical},
  + {lReading > limits.lUpperCritical, 3, messages.lUpperCritical},
fan-last-numbered  src/notifications/sensors/CNotfyFanMonitoring.cpp  ^FanKinds\.|^VoltageFanTest\.
  # fan 12 is an unknown fan
  - lSensorId <= static_cast<LONG>(std::size(kNumberedFans))
  + lSensorId < static_cast<LONG>(std::size(kNumberedFans))
volt-rename-change  src/notifications/sensors/CNotfyVoltage.cpp  ^VoltageFanTest\.
  # a renamed voltage probe in the same state is reported as a change
  - StoredDiffers({"EventTextId"})
  + StoredDiffers({"EventTextId", "Name"})
smart-threshold  src/notifications/sensors/CNotfyHardDisksSMART.cpp  ^SmartClassify\.|^SmartFanAgeingTest\.
  # an attribute at its threshold is not critical
  - if (attribute.ulValue <= attribute.ulThreshold)
  + if (attribute.ulValue < attribute.ulThreshold)
inv-added-message  src/notifications/inventory/CNotfyInventoryChange.cpp  ^DeviceChangeTest\.|^VideoAdapterTest\.
  # an added item gets the removal message (x003) instead of x002
  - outcome == EInventoryOutcome::Added ? 2 :
  + outcome == EInventoryOutcome::Added ? 3 :
inv-removed-type  src/notifications/inventory/CNotfyInventoryChange.cpp  ^DeviceChangeTest\.
  # a removal is reported with EventType 3 (unchanged) instead of 5
  - PutI4(m_wmi, "EventType", kTypeInventory)
  + PutI4(m_wmi, "EventType", kTypeUnchanged)
free-unspecified  src/notifications/inventory/CNotfyHardDisksFreeSpace.cpp  ^MeasuredValuesTest\.
  # a disk in an unspecified state (no limits) is reported instead of skipped
  - if (ulState < 1 || ulState > 3)
  + if (ulState > 3)
list-filter-swap  src/notifications/inventory/ListComparison.cpp  ^ListComparison\.|^AutoStartServiceTest\.
  # removals are looked for with the two lists swapped
  - changes.removed = Unmatched(old, MakeSet(current), isOldFiltered);
  + changes.removed = Unmatched(current, MakeSet(old), isOldFiltered);
list-fold-z  src/notifications/inventory/ListComparison.cpp  ^ListComparison\.|^AutoStartServiceTest\.
  # Z is not folded to z when entries are compared
  - return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
  + return (c >= L'A' && c < L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
proc-missing-id  src/notifications/inventory/CNotfyProcessorChange.cpp  ^ProcessorChangeRules\.|^ProcessorDisplayTest\.
  # a processor id missing on one side counts as a different processor
  - if (wsStored.empty() || wsCurrent.empty())
  + if (wsStored.empty() && wsCurrent.empty())
bios-back-type  src/notifications/inventory/CNotfyBiosSettingsChange.cpp  ^BiosSettingsTest\.
  # the return to the nominal value is reported with EventType 2 instead of 3
  - SetEventTypeFromStored(dwStatus, 3, kName,
  + SetEventTypeFromStored(dwStatus, 2, kName,
'''


def parse():
    entries = []
    for line in TABLE.strip("\n").split("\n"):
        if not line.startswith("  "):
            fault_id, path, tests = line.split()
            entries.append({"id": fault_id, "file": path, "tests": tests, "unsure": ""})
        else:
            key, text = {"#": "what", "?": "unsure", "-": "from", "+": "to"}[line[2]], line[4:]
            entries[-1][key] = text
    return entries


def run(args, log):
    with open(log, "w") as out:
        return subprocess.run(args, stdout=out, stderr=subprocess.STDOUT).returncode == 0


def main(argv):
    command, ids = (argv[0] if argv else "help"), argv[1:]
    entries = parse()
    unknown = set(ids) - {e["id"] for e in entries}
    if command not in ("list", "verify", "check") or unknown:
        print(__doc__ if not unknown else "unknown fault: " + ", ".join(sorted(unknown)))
        return 2
    chosen = [e for e in entries if not ids or e["id"] in ids]
    if command == "list":
        for e in chosen:
            print(f"{e['id']}  {e['file']}\n    {e['what']}\n    tests: {e['tests']}")
            if e["unsure"]:
                print(f"    unsure: {e['unsure']}")
        print(f"{len(chosen)} faults")
        return 0
    stale = [e["id"] for e in chosen if open(e["file"], encoding="utf-8").read().count(e["from"]) != 1]
    if command == "verify":
        print(f"{len(chosen)} faults, stale: {', '.join(stale) or 'none'}")
        return 2 if stale else 0
    build_dir = os.environ.get("BUILD_DIR", "build")
    logs = os.path.join(build_dir, "fault-list-logs")
    os.makedirs(logs, exist_ok=True)
    files = sorted({e["file"] for e in chosen})
    if stale or subprocess.run(["git", "status", "--porcelain", "--", *files], capture_output=True, text=True).stdout:
        print("stale entries or uncommitted changes in the files to fault; refusing")
        return 2
    build = ["cmake", "--build", build_dir, "-j2"]
    ctest = ["ctest", "--test-dir", build_dir, "-j2", "--output-on-failure", "-R"]
    if os.environ.get("SKIP_BASELINE") != "1":
        union = "|".join(e["tests"] for e in chosen)
        if not (run(build, f"{logs}/baseline.build.log") and run(ctest + [union], f"{logs}/baseline.ctest.log")):
            print(f"the unchanged tree fails; see {logs}/baseline.*.log")
            return 2
    results = {}
    try:
        for n, e in enumerate(chosen, 1):
            started = time.time()
            with open(e["file"], encoding="utf-8") as f:
                text = f.read()
            with open(e["file"], "w", encoding="utf-8") as f:
                f.write(text.replace(e["from"], e["to"], 1))
            try:
                listed = subprocess.run(["ctest", "--test-dir", build_dir, "-N", "-V", "-R", e["tests"]],
                                        capture_output=True, text=True).stdout
                # only the test programs that run, and the module they load
                targets = sorted(set(re.findall(r"bin/(\w+)\.exe", listed)) | {"Moradel", "trace_probe"})
                if not run(build + ["--target", *targets], f"{logs}/{e['id']}.build.log"):
                    result = "build-broken"
                elif "Total Tests: 0" in listed:
                    result = "no-tests"
                else:
                    result = "MISSED" if run(ctest + [e["tests"]], f"{logs}/{e['id']}.ctest.log") else "caught"
            finally:
                subprocess.run(["git", "checkout", "--", e["file"]])
            results[e["id"]] = result
            print(f"[{n}/{len(chosen)}] {e['id']:<24} {result:<13} ({time.time() - started:.0f} s)", flush=True)
    finally:
        if not run(build, f"{logs}/final.build.log"):
            print(f"the final build of the unchanged tree failed; see {logs}/final.build.log")
    counts = {r: list(results.values()).count(r) for r in set(results.values())}
    print(", ".join(f"{n} {r}" for r, n in sorted(counts.items())))
    return 1 if "MISSED" in counts else (2 if set(counts) - {"caught", "MISSED"} else 0)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
