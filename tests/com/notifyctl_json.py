"""notifyctl --format json against a fresh copy of the event namespace: the document parses and
carries what the handler returned, and a cycle stores the event it got; on the example
workstation every id of the table reports."""
import json
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from cli_checks import check, failures, windows_path

wine_run, notifyctl, schema = sys.argv[1], sys.argv[2], Path(sys.argv[3])


def notifyctl_json(repository, *args):
    env = dict(__import__("os").environ, CIMSTORE_REPOSITORY=windows_path(repository))
    done = subprocess.run([wine_run, notifyctl, "--format", "json", *args], capture_output=True, env=env, timeout=120)
    try:
        return done.returncode, json.loads(done.stdout.decode("utf-8"))
    except ValueError as error:
        sys.exit(f"not JSON ({error}): {done.stdout!r} {done.stderr!r}")


with tempfile.TemporaryDirectory() as folder:
    repository = Path(folder)
    for mof in schema.glob("*.mof"):
        shutil.copy(mof, repository)

    code, document = notifyctl_json(repository, "get", "59", "4")
    check(code == 1, f"exit status {code} with a failing id")
    check(isinstance(document, list) and len(document) == 2, f"one entry per id: {document}")
    simulated, unknown = document
    check(simulated["id"] == 59 and simulated["hr"] == "0x00000000" and simulated["returnValue"] == 0,
          f"id 59 result: {simulated}")
    check(len(simulated["instances"]) == 1, "one simulated event")
    event = simulated["instances"][0]
    check(event["class"] == "KM_Notifications", f"class {event['class']}")
    check(event["relpath"] == "KM_Notifications.DeviceId=1", f"relpath {event['relpath']}")
    check(event["qualifiers"] == {}, f"no NoPut on a simulated event: {event['qualifiers']}")
    properties = event["properties"]
    for name, value in {"DeviceId": 1, "EventId": 59, "EventType": 5, "EventStatus": 1, "EventTextId": 59001}.items():
        check(properties.get(name) == value and type(properties.get(name)) is int, f"{name} = {properties.get(name)!r}")
    check(isinstance(properties.get("UUID"), str) and len(properties["UUID"]) == 38, f"UUID {properties.get('UUID')!r}")
    check(properties.get("EventTextArguments", 0) is None, "an unset property is null")
    check(unknown == {"id": 4, "hr": "0x80070057", "returnValue": 4, "instances": []}, f"id 4 result: {unknown}")

    code, document = notifyctl_json(repository, "cycle", "59")
    check(code == 0, f"cycle exit status {code}")
    cycle = document[0]
    check(cycle["stored"] == ["KM_Notifications.DeviceId=1"], f"stored {cycle.get('stored')}")
    check(cycle["delete"] == {"hr": "0x00040017", "returnValue": 0}, f"delete {cycle.get('delete')}")
    state = repository / "state.mof"
    check(state.exists() and "KM_Notifications" in state.read_bytes().decode("utf-16", errors="replace"), "the stored event persists")

    code, document = notifyctl_json(repository, "delete", "59")
    check(code == 0 and document == [{"id": 59, "hr": "0x00040017", "returnValue": 0}], f"delete: {document}")

# Every id of the table answers on the example workstation; none as an unknown id.
with tempfile.TemporaryDirectory() as folder:
    repository = Path(folder)
    for mof in schema.glob("*.mof"):
        shutil.copy(mof, repository / ("00_" + mof.name))
    for mof in (schema.parent / "examples" / "workstation").glob("*.mof"):
        if mof.name != "change.mof":
            shutil.copy(mof, repository)
    code, document = notifyctl_json(repository, "cycle", "all")
    ids = [entry["id"] for entry in document]
    check(1 in ids and 9 in ids and len(ids) == 20, f"cycle all ids: {ids}")
    for entry in document:
        check(entry["hr"] != "0x80070057", f"id {entry['id']} answered as unknown")
        check(entry["id"] == 65 or entry["instances"], f"id {entry['id']} reported nothing on the workstation")

if failures:
    print("FAILED:\n  " + "\n  ".join(failures))
    sys.exit(1)
print("notifyctl json: all checks passed")
