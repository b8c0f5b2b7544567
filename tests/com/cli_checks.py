"""What the notifyctl scripts share: failures collected over the whole run, Windows paths for Wine."""
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")
