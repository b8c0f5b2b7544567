"""The free space and memory kinds on this machine's own data. The repository holds the schema
and the free space limits only, so CimStore hands Win32_LogicalDisk and Win32_OperatingSystem
to the platform's WMI; what notifyctl reports must be what the platform answers its own wmic."""
import json
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from cli_checks import check, failures, windows_path

wine_run, notifyctl, schema, limits = sys.argv[1], sys.argv[2], Path(sys.argv[3]), Path(sys.argv[4])
# Other processes write to the same disks while the test reads them.
SLACK_MIB = 64


def run(repository, *args):
    env = dict(os.environ, CIMSTORE_REPOSITORY=windows_path(repository))
    return subprocess.run([wine_run, *args], capture_output=True, env=env, timeout=120)


def number(text):
    return int(text) if text.isdigit() else 0


def wmic_rows(empty, wmi_class, properties):
    """Rows of the platform's class as {property: text}, read with Wine's own wmic. With
    CIMSTORE_REPOSITORY naming an empty folder CimStore hands every namespace over, so the rows
    are the platform's. wmic prints fixed-width UTF-16 columns headed by the property names."""
    done = run(empty, "wmic", "path", wmi_class, "get", ",".join(properties))
    lines = [line for line in done.stdout.decode("utf-16", errors="replace").splitlines() if line.strip()]
    if done.returncode != 0 or not lines:
        sys.exit(f"wmic {wmi_class} failed ({done.returncode}): {lines} {done.stderr!r}")
    header = lines[0]
    names = header.split()
    starts = [header.index(name) for name in names]
    bounds = list(zip(starts, starts[1:] + [None]))
    return [{name.lower(): line[start:end].strip() for name, (start, end) in zip(names, bounds)} for line in lines[1:]]


def platform(empty):
    """{"disks": {DeviceID: (DriveType, FreeSpace, Size)}, "os": [(SystemDirectory, TotalVisibleMemorySize)]}"""
    answer = {"disks": {}, "os": []}
    for row in wmic_rows(empty, "Win32_LogicalDisk", ["DeviceID", "DriveType", "FreeSpace", "Size"]):
        answer["disks"][row["deviceid"]] = (number(row["drivetype"]), number(row["freespace"]), number(row["size"]))
    for row in wmic_rows(empty, "Win32_OperatingSystem", ["SystemDirectory", "TotalVisibleMemorySize"]):
        answer["os"].append((row["systemdirectory"], number(row["totalvisiblememorysize"])))
    return answer


with tempfile.TemporaryDirectory() as folder:
    repository, empty = Path(folder, "repository"), Path(folder, "empty")
    repository.mkdir()
    empty.mkdir()
    # File-name order: the schema before the limits, as the demo loads them.
    for mof in schema.glob("*.mof"):
        shutil.copy(mof, repository / f"00_{mof.name}")
    for mof in limits.glob("*.mof"):
        shutil.copy(mof, repository)

    before = platform(empty)
    done = run(repository, notifyctl, "--format", "json", "get", "21", "56", "22")
    after = platform(empty)
    try:
        document = json.loads(done.stdout.decode("utf-8"))
    except ValueError as error:
        sys.exit(f"not JSON ({error}): {done.stdout!r} {done.stderr!r}")

check(done.returncode == 0, f"notifyctl exit status {done.returncode}")
results = {entry["id"]: entry for entry in document}
check(sorted(results) == [21, 22, 56], f"ids answered: {sorted(results)}")

fixed = {name for name, (drive_type, _, _) in before["disks"].items() if drive_type == 3}
check(fixed == {name for name, (drive_type, _, _) in after["disks"].items() if drive_type == 3},
      f"the platform's fixed disks changed between its reads: {before['disks']} {after['disks']}")
check(len(before["os"]) == 1, f"the platform's operating systems: {before['os']}")
system_directory, visible_kilobytes = before["os"][0] if before["os"] else ("", 0)
system_drive = system_directory[:2].upper()

for kind, expected in ((21, fixed - {system_drive}), (56, fixed & {system_drive})):
    result = results.get(kind, {"hr": "missing", "instances": []})
    check(result["hr"] == "0x00000000", f"id {kind} hr {result['hr']}")
    events = {event["properties"].get("Name"): event["properties"] for event in result["instances"]}
    check(set(events) == expected,
          f"id {kind} reports {sorted(map(str, events))}, the platform's fixed disks are {sorted(fixed)}"
          f" with the system drive {system_drive!r}")
    for name in sorted(set(events) & expected):
        free_mib = number(str(events[name].get("FreeDiskSpace")))
        reads = (before["disks"][name][1], after["disks"].get(name, before["disks"][name])[1])
        low, high = min(reads) >> 20, max(reads) >> 20
        check(low - SLACK_MIB <= free_mib <= high + SLACK_MIB,
              f"id {kind} {name}: FreeDiskSpace {events[name].get('FreeDiskSpace')!r}, the platform {low}..{high} MiB")
        size_mib = before["disks"][name][2] >> 20
        percentage = free_mib * 100 // size_mib if size_mib else None
        check(events[name].get("FreeDiskPercentage") == percentage,
              f"id {kind} {name}: FreeDiskPercentage {events[name].get('FreeDiskPercentage')!r},"
              f" {percentage!r} from the platform's Size {size_mib} MiB")

memory = results.get(22, {"hr": "missing", "instances": []})
check(memory["hr"] == "0x00000000" and len(memory["instances"]) == 1,
      f"id 22: hr {memory['hr']}, {len(memory['instances'])} instance(s)")
for event in memory["instances"]:
    current = number(str(event["properties"].get("CurrentSize")))
    check(current == visible_kilobytes,
          f"id 22: CurrentSize {event['properties'].get('CurrentSize')!r}, the platform's"
          f" TotalVisibleMemorySize {visible_kilobytes}")

if failures:
    print("FAILED:\n  " + "\n  ".join(failures))
    print(f"platform: {before}\nnotifyctl: {json.dumps(document, indent=1)}")
    sys.exit(1)
print(f"live machine: the platform's disks (DriveType, FreeSpace, Size) {before['disks']}, system drive"
      f" {system_drive!r}, {visible_kilobytes} KB visible memory; all checks passed")
