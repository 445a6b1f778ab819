#!/usr/bin/env python3
"""Runs the examples of docs/qxview-api.md with a server of its own: api_examples.py QXVIEW QXCTL SOURCE

Every line that calls curl must succeed. After "#" it names the schema of what it prints, and the status if that is not 200.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

QXVIEW, QXCTL, SOURCE = sys.argv[1:4]
PAGE = pathlib.Path(SOURCE) / "docs/qxview-api.md"


def lines_of(page):
    for block in re.findall(r"<!-- example: [a-z]+ -->\n```sh\n(.*?)```", page, re.S):
        yield from block.splitlines()


def run(line, directory, variables):
    return subprocess.run(["bash", "-c", line], cwd=directory, env={"PATH": "/usr/bin:/bin", **variables},
                          capture_output=True, text=True, check=False)


def fault_of(line, directory, variables):
    command, _, remark = line.partition("#")
    command = command.strip()
    is_document = remark.strip().startswith("qx")
    if is_document:
        command += " -w '\\n%{http_code}'"
    ran = run(command, directory, variables)
    is_stream = "--max-time" in command
    if ran.returncode != (28 if is_stream else 0):
        return f"code {ran.returncode}: {ran.stdout}{ran.stderr}"
    if is_stream:
        return "" if "event: overview" in ran.stdout else f"no event: {ran.stdout}"
    if not is_document:
        return ""
    schema, *status = remark.split()
    body, _, found = ran.stdout.rpartition("\n")
    if found != (status or ["200"])[0]:
        return f"status {found}: {body}"
    check = subprocess.run([sys.executable, "-W", "ignore", SOURCE + "/tests/qxview/check_documents.py", SOURCE + "/docs/schemas"],
                           input=f"{schema} {body.strip()}\n", capture_output=True, text=True, check=False)
    return check.stdout + check.stderr


def main():
    with tempfile.TemporaryDirectory() as directory:
        reports = pathlib.Path(directory) / "reports"
        reports.mkdir()
        (pathlib.Path(directory) / "log.one").write_text(
            "2026-01-31 10:20:30.123 [0A1B2C3D] QxTrace       ## WARNING! slow\n", encoding="utf-8")
        (reports / "load.names").write_text("[Quaxel Report Instances]\nVersion=1\nName=load\n\n[Names]\n1=North\n", encoding="utf-8")
        run(f"{QXCTL} report create {reports}/load --slots 100; {QXCTL} report append {reports}/load "
            "'2026-01-31 10:20:30 cpu=12% load=0.5' '2026-01-31 10:20:31 cpu=13% load=0.6'", directory, {})
        server = subprocess.Popen([QXVIEW, "--listen", "127.0.0.1:0", "--reports", str(reports), "--traces", directory,
                                   "--state", directory + "/state"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            address, _, token = server.stdout.readline().strip().partition("/#token=")
            variables = {"ADDRESS": address, "TOKEN": token}
            faults = []
            count = 0
            for line in lines_of(PAGE.read_text(encoding="utf-8")):
                if not line.startswith("curl"):
                    continue
                count += 1
                fault = fault_of(line, directory, variables)
                if fault:
                    faults.append(f"{line}\n  {fault}\n")
            if "cpu=13%" not in (pathlib.Path(directory) / "load.txt").read_text(encoding="utf-8"):
                faults.append("load.txt lacks a record\n")
        finally:
            server.terminate()
            server.wait()
    print("".join(faults), end="")
    if count < 15:
        print(f"only {count} examples were found")
    return 1 if faults or count < 15 else 0


if __name__ == "__main__":
    sys.exit(main())
