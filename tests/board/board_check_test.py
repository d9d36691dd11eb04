#!/usr/bin/python3
"""Tests board-check on the root of a virtual camera, on copies of it with one fault each, and over a fake ssh.
KOVA_BUILD is the folder of the programs."""

import atexit
import contextlib
import json
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent

import checks  # noqa: E402
import contract  # noqa: E402
import forms  # noqa: E402
import roots  # noqa: E402

CAMERA = contract.TOP / "camera/camera"
DEV = contract.TOP / "dev"
ROWS = contract.rows_of_page()
ACCOUNT = next(row.name for row in ROWS if row.kind == "account" and row.form == ["account"])
IS_ROOT = os.geteuid() == 0
NOBODY = 65534
# The camera mounts the programs as built. With another owner or umask they fail the check for a board.
BUILT = [path.stat() for path in Path(os.environ["KOVA_BUILD"]).glob("kova_ctlserver/**/kova_*") if path.is_file()]
IS_BUILT_LIKE_A_BOARD = all(info.st_uid in (0, os.geteuid()) and not info.st_mode & 0o022 for info in BUILT)
# The folders of a camera to copy: no libraries, no kernel file systems.
COPIED = ("bin", "sbin", "etc", "tmp", "run", "var", "usr/bin", "usr/sbin", "usr/libexec", "usr/share/kova",
          "usr/share/zoneinfo/Europe")  # fmt: skip
# Rows that others depend on: one fault here may cause several findings.
DEPENDED_ON = ("/bin/sh", "/etc", "/etc/sv", "/etc/persistent", "/tmp")

work = Path(tempfile.mkdtemp(prefix="kova-board."))
camera = work / "cam"
image = work / "image"


def setUpModule():
    if not IS_ROOT:
        # In a user namespace the machine's programs belong to an unmapped user.
        roots.SshRoot.roots = {0, NOBODY}
    atexit.register(clean_up)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    subprocess.run([CAMERA, "start", camera], check=True, stdout=subprocess.DEVNULL)
    copy_image()
    add_what_is_optional()


def clean_up():
    subprocess.run([CAMERA, "stop", camera], check=False, stdout=subprocess.DEVNULL)
    shutil.rmtree(work, ignore_errors=True)


def root_of_camera():
    """The camera's root as its processes see it, with the mounted programs."""
    return f"/proc/{(camera / 'state/init.pid').read_text().strip()}/root"


def copy_image():
    for folder in COPIED:
        (image / folder).parent.mkdir(parents=True, exist_ok=True)
        words = ["cp", "-a", "--no-preserve=ownership", "-T", f"{root_of_camera()}/{folder}", image / folder]
        subprocess.run(words, check=True)
        subprocess.run(["chmod", "-R", "go-w", image / folder], check=True)
    (image / "tmp").chmod(0o1777)
    for path in image.rglob("*"):
        if stat.S_ISSOCK(path.lstat().st_mode) or stat.S_ISFIFO(path.lstat().st_mode):
            path.unlink()
    # An absolute link would resolve to a file of the machine.
    for row in ROWS:
        for name in row.names if row.kind == "path" and "program" in row.form else ():
            if path_of(name).is_symlink():
                path_of(name).unlink()
                shutil.copy(f"{root_of_camera()}{name}", path_of(name))


def openssl(*words):
    subprocess.run(["openssl", *words], check=True, capture_output=True)


def add_what_is_optional():
    """Makes the copy that of an adopted camera with a logo, a sound and a snapshot."""
    pair = image / "etc/persistent/server.pem"
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=camera",
            "-days", "2", "-keyout", work / "key", "-out", work / "crt")  # fmt: skip
    openssl("ec", "-in", work / "key", "-aes256", "-passout", "pass:secret", "-out", work / "encrypted")
    openssl("ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", work / "other")
    pair.write_bytes((work / "crt").read_bytes() + (work / "key").read_bytes())
    pair.chmod(0o600)
    texts = {
        "etc/persistent/controller.crt": (work / "crt").read_text(),
        "etc/shadow": "admin:*:1::::::\n",
        "etc/kova_members": "lens:*:1000:1000::/:/bin/false\n",
    }
    for row in ROWS:
        if row.names[0].startswith(("/tmp/", "/etc/persistent/user_")) and not row.stands_for_many:
            texts.setdefault(row.names[0][1:], "text\n")
    for name, text in texts.items():
        (image / name).write_text(text)
        (image / name).chmod(0o640 if name == "etc/shadow" else 0o644)


def look(place=image):
    with contextlib.closing(roots.open_root(str(place))) as root:
        return [str(finding) for finding in checks.check(root, ROWS)[0]]


def path_of(name):
    """The path in the image; asserts that no link leads to a file of the machine."""
    path = image / name.lstrip("/")
    assert path.parent.resolve().is_relative_to(image.resolve()), path
    return path


@contextlib.contextmanager
def replaced(name):
    """Moves the image's file of that name aside while the block puts another in its place."""
    path = path_of(name)
    aside = Path(f"{path}.aside")
    if os.path.lexists(path):
        os.rename(path, aside)
    try:
        yield path
    finally:
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path)
        else:
            path.unlink(missing_ok=True)
        if os.path.lexists(aside):
            os.rename(aside, path)


@contextlib.contextmanager
def with_text(name, text):
    with replaced(name) as path:
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        shutil.copymode(f"{path}.aside", path)
        yield path


@contextlib.contextmanager
def with_mode(name, mode):
    path = path_of(name)
    assert not path.is_symlink(), path
    before = path.stat().st_mode & 0o7777
    path.chmod(mode)
    try:
        yield path
    finally:
        path.chmod(before)


@contextlib.contextmanager
def with_owner(name, owner):
    path = path_of(name)
    before = path.lstat()
    os.chown(path, owner, -1, follow_symlinks=False)
    try:
        yield path
    finally:
        os.chown(path, before.st_uid, -1, follow_symlinks=False)
        if not path.is_symlink():
            path.chmod(before.st_mode & 0o7777)


def text_of(name):
    return (image / name.lstrip("/")).read_text()


def path_rows(*words):
    """The rows of existing files, with their names; `words` limits them to these forms."""
    for row in ROWS:
        if row.kind == "path" and row.is_checked and not row.need.startswith("running"):
            name = next((name for name in row.names if os.path.lexists(image / name[1:])), None)
            if name and (not words or any(word in row.form for word in words)):
                yield row, name


def is_needed(row):
    with contextlib.closing(roots.FolderRoot(image)) as root:
        return checks.is_needed(checks.Board(root), row)


class Found(unittest.TestCase):
    """Each case introduces one fault."""

    def expect(self, verdict, name, *texts):
        """Expects one finding with these texts, and no other unless others depend on this row."""
        findings = look()
        own = [finding for finding in findings if finding.startswith(f"{verdict:8}{name}: ")]
        self.assertEqual(len(own), 1, findings)
        for text in texts:
            self.assertIn(text, own[0])
        if name not in DEPENDED_ON:
            self.assertEqual(findings, own)
        return own[0]

    def test_whole_copy_passes(self):
        self.assertEqual(look(), [])

    def test_each_file_that_must_be_there_is_missed(self):
        count = 0
        for row, name in path_rows():
            with self.subTest(row.name), replaced(name):
                if is_needed(row):
                    self.expect("missing", row.name, row.todo)
                    count += 1
                else:
                    self.assertEqual(look(), [])
        self.assertGreater(count, 20)

    def test_one_of_two_files_makes_row_needed(self):
        row = next(row for row in ROWS if row.need == "with /etc/sv/kova_ctlserver or /etc/rauc/system.conf")
        name = next(name for name in row.names if os.path.lexists(path_of(name)))
        with replaced(name):
            self.expect("missing", row.name)
            with replaced("/etc/sv/kova_ctlserver"):
                self.assertFalse([finding for finding in look() if row.name in finding])
                with replaced("/etc/rauc") as folder:
                    folder.mkdir()
                    (folder / "system.conf").write_text("text\n")
                    self.assertTrue([finding for finding in look() if row.name in finding])

    def test_each_mode_that_is_too_open_is_found(self):
        for row, name in path_rows("0600", "0640", "0644", "0750", "0755"):
            with self.subTest(row.name), with_mode(name, 0o777):
                self.expect("wrong", row.name, "mode 0777 permits others too much: chmod 0")

    def test_key_that_others_may_read_is_found(self):
        with with_mode("/etc/persistent/server.pem", 0o644):
            self.expect("wrong", "/etc/persistent/server.pem", "mode 0644", "chmod 0600")

    def test_tmp_that_is_not_sticky_is_found(self):
        with with_mode("/tmp", 0o777):
            self.expect("wrong", "/tmp", "chmod 1777")

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_each_file_of_another_user_is_found(self):
        for row, name in path_rows("root"):
            with self.subTest(row.name), with_owner(name, NOBODY):
                self.expect("wrong", row.name, f"belongs to user {NOBODY}: chown root")

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_snapshot_belongs_to_root_or_the_owner_of_uploads(self):
        name = "/usr/share/kova/camera_info.json"
        with with_owner("/tmp/snap.jpeg", 1000):
            self.expect("wrong", "/tmp/snap.jpeg", "belongs to user 1000")
            with with_text(name, json.dumps({**json.loads(text_of(name)), "upload_owner": 1000})):
                self.assertEqual(look(), [])

    def test_each_folder_in_the_place_of_a_file_is_found(self):
        for row, name in path_rows("file", "program", "link"):
            with self.subTest(row.name), replaced(name) as path:
                path.mkdir(0o700)
                self.expect("wrong", row.name, "is a folder, not a ")

    def test_each_file_in_the_place_of_a_folder_is_found(self):
        for row, name in path_rows("folder"):
            with self.subTest(row.name), replaced(name) as path:
                path.write_text("text\n")
                self.expect("wrong", row.name, "is a file, not a folder")

    def test_each_dangling_link_is_found(self):
        for row, name in path_rows("file", "program", "folder"):
            with self.subTest(row.name), replaced(name) as path:
                path.symlink_to("/nowhere")
                self.expect("wrong", row.name, "is a link that leads nowhere")

    def test_each_empty_file_is_found(self):
        for row, name in path_rows("program", *checks.CONTENT - {"key=value lines"}):
            with self.subTest(row.name), with_text(name, ""):
                self.expect("wrong", row.name)

    def test_each_program_that_cannot_run_is_found(self):
        faults = {
            "just text\n": "neither a program nor a script",
            "#!/bin/nothing -e\n": "its interpreter '/bin/nothing' is not there",
            "#!relative\n": "its interpreter 'relative' is not there",
            "#!/a\0b\n": "is not there",
            "#!" + "/a" * 500: "is not there",
            "#!\n": "its interpreter '' is not there",
        }
        for row, name in path_rows("program"):
            for text, fault in faults.items():
                with self.subTest(row.name), with_text(name, text):
                    self.expect("wrong", row.name, fault)
            with self.subTest(row.name), with_text(name, "#!/bin/sh\n") as path:
                path.chmod(0o644)
                self.expect("wrong", row.name, "is not executable: chmod 0755")

    def test_program_for_another_processor_is_found(self):
        def program(machine):
            return b"\x7fELF\x02\x01\x01" + bytes(9) + b"\x02\x00" + machine.to_bytes(2, "little") + bytes(44)

        with with_text("/usr/bin/kova_ctlserver", program(183)):
            for row in ("/bin/cfgmtd", "/usr/libexec/kova_tidy"):
                with with_text(row, program(183)):
                    self.assertFalse([finding for finding in look() if row in finding])
                with with_text(row, program(62)):
                    own = [finding for finding in look() if row in finding]
                    self.assertIn("is for another processor than the daemon", own[0])

    def test_texts_that_cannot_be_parsed_are_found(self):
        pem = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"
        cases = {
            "/usr/share/kova/camera_info.json": ("{", "[]", '{"name": NaN}', "[" * 100000),
            "/etc/system.cfg": (text_of("/etc/system.cfg") + "nonsense\n", text_of("/etc/system.cfg") + " a=b\n"),
            "/etc/passwd": (text_of("/etc/passwd") + "lens\n", text_of("/etc/passwd") + "lens:*:x:1::/:/bin/sh\n"),
            "/etc/persistent/controller.crt": ("text", pem),
            "/etc/TZ": ("GMT0\nGMT0\n",),
            "/etc/persistent/user_logo.md5": ("\n\n",),
        }
        for name, texts in cases.items():
            for text in texts:
                with self.subTest(f"{name}: {text[:20]}"), with_text(name, text):
                    self.expect("wrong", name)

    def test_store_that_is_too_large_is_found(self):
        filler = "a=" + "b" * roots.MOST_BYTES + "\n"
        with with_text("/etc/system.cfg", text_of("/etc/system.cfg") + filler):
            self.expect("wrong", "/etc/system.cfg", "larger than 1 MiB")

    def test_certificate_without_its_key_is_found(self):
        certificate = (work / "crt").read_text()
        cases = {
            certificate: "it holds no private key",
            certificate + (work / "other").read_text(): "not that of its certificate",
            certificate + (work / "encrypted").read_text(): "its key is encrypted",
            (work / "key").read_text(): "it holds no certificate",
        }
        for text, fault in cases.items():
            with self.subTest(fault), with_text("/etc/persistent/server.pem", text):
                self.expect("wrong", "/etc/persistent/server.pem", fault)

    def test_each_service_that_must_be_there_is_missed(self):
        for row in ROWS:
            if row.kind == "service" and row.is_checked:
                with self.subTest(row.name), replaced(f"/etc/sv/{row.name}"):
                    if row.need == "must":
                        self.expect("missing", row.name)
                    else:
                        self.assertEqual(look(), [])

    def test_service_whose_script_cannot_run_is_found(self):
        with with_mode("/etc/sv/kova_ctlserver/run", 0o644):
            self.expect("wrong", "kova_ctlserver", "/etc/sv/kova_ctlserver/run is not executable")

    def test_two_slot_rows_are_needed_with_rauc(self):
        configuration = "/etc/rauc/system.conf"
        rows = [row for row in ROWS if row.need == f"with {configuration}"]
        self.assertGreater(len(rows), 5)
        with contextlib.ExitStack() as stack:
            folder = stack.enter_context(replaced("/etc/rauc"))
            folder.mkdir()
            paths = [stack.enter_context(replaced(name)) for row in rows for name in row.names]
            self.assertEqual(look(), [])
            (folder / "system.conf").write_text("[system]\n")
            self.assertEqual(look(), [f"missing {row.name}: {row.todo}" for row in rows])
            for path in paths:
                path.write_text("#!/bin/sh\n")
                path.chmod(0o644 if path.parent == image / "etc" else 0o755)
            self.assertEqual(look(), [])

    def test_unit_of_systemd_is_a_service(self):
        with replaced("/etc/sv/kova_bus"), replaced("/usr/lib") as lib:
            (lib / "systemd/system").mkdir(parents=True)
            (lib / "systemd/system/kova-bus.service").write_text("[Service]\n")
            self.assertEqual(look(), [])

    def test_each_key_of_the_description_is_checked(self):
        name = "/usr/share/kova/camera_info.json"
        whole = json.loads(text_of(name))
        wrong = {"name": "", "sysid": 1.5, "feature_wifi": "1", "feature_battery": True, "reset_button_gpio": "",
                 "reset_button_active_low": 1, "upload_owner": "stranger"}  # fmt: skip
        rows = [row for row in ROWS if row.kind == "description"]
        self.assertLessEqual(set(wrong), {row.name for row in rows})
        for row in rows:
            if row.need == "must":
                rest = {key: value for key, value in whole.items() if key != row.name}
                with self.subTest(row.name), with_text(name, json.dumps(rest)):
                    self.expect("missing", row.name, row.todo)
            if row.name in wrong:
                with self.subTest(row.name), with_text(name, json.dumps({**whole, row.name: wrong[row.name]})):
                    self.expect("wrong", row.name, row.todo)

    def test_owner_of_uploads_may_be_a_number_or_a_user(self):
        name = "/usr/share/kova/camera_info.json"
        for owner in (1000, "1000", "admin"):
            with with_text(name, json.dumps({**json.loads(text_of(name)), "upload_owner": owner})):
                self.assertEqual(look(), [])

    def test_each_setting_is_checked(self):
        name = "/etc/system.cfg"
        whole = text_of(name)
        wrong = {"users.1.name": "7up", "users.1.password": "plain", "resolv.host.1.name": "",
                 "system.timezone": "Nowhere/Land", "system.timelapseminutes": "often"}  # fmt: skip
        for row in ROWS:
            if row.kind != "setting":
                continue
            lines = [line for line in whole.splitlines(True) if not line.startswith(f"{row.name}=")]
            if row.need == "must":
                with self.subTest(row.name), with_text(name, "".join(lines)):
                    self.expect("missing", row.name, row.todo)
            if row.name in wrong:
                with self.subTest(row.name), with_text(name, "".join(lines) + f"{row.name}={wrong[row.name]}\n"):
                    own = [finding for finding in look() if finding.startswith(f"wrong   {row.name}: ")]
                    self.assertEqual(len(own), 1)
                    self.assertNotIn("plain", own[0])

    def test_duplicate_setting_is_found(self):
        with with_text("/etc/system.cfg", text_of("/etc/system.cfg") + "resolv.host.1.name=Another\n"):
            self.expect("wrong", "resolv.host.1.name", "2 lines have this key")

    def test_models_that_take_timelapses_need_their_setting(self):
        name = "/usr/share/kova/camera_info.json"
        lines = [line for line in text_of("/etc/system.cfg").splitlines(True) if "timelapse" not in line]
        with with_text("/etc/system.cfg", "".join(lines)):
            self.assertEqual(look(), [])
        description = json.dumps({**json.loads(text_of(name)), "sysid": 42321})
        os.rename(image / "etc/system.cfg", work / "whole.cfg")
        try:
            (image / "etc/system.cfg").write_text("".join(lines))
            with with_text(name, description):
                self.expect("missing", "system.timelapseminutes")
        finally:
            os.rename(work / "whole.cfg", image / "etc/system.cfg")

    def test_zone_is_looked_up_in_the_image(self):
        lines = [line for line in text_of("/etc/system.cfg").splitlines(True) if "timezone" not in line]
        zones = {"Europe/Paris": True, "UTC": True, "Mars/Base": False, "../../etc/TZ": False, "a" * 5000: False}
        for zone, is_known in zones.items():
            with self.subTest(zone), with_text("/etc/system.cfg", "".join(lines) + f"system.timezone={zone}\n"):
                self.assertEqual(bool(look()), not is_known)

    def test_account_that_is_not_that_of_the_store_is_found(self):
        line = text_of("/etc/passwd")
        cases = {
            line.replace("admin:", "boss:"): "no account of the name",
            re.sub(r"^admin:[^:]*", "admin:", line): "the account has no password",
            re.sub(r"^admin:", "admin:!", line): "the hash of the account is not that in",
            re.sub(r"^admin:[^:]*", "admin:x", line): "the hash of the account is not that in",
        }
        for text, fault in cases.items():
            with self.subTest(fault), with_text("/etc/passwd", text):
                self.assertNotIn("$6$", self.expect("wrong", ACCOUNT, fault))

    def test_fresh_salt_of_a_renamed_account_is_distinguished(self):
        line = text_of("/etc/passwd")
        for salt, said in {"$6$other$": "right if the account was renamed", "!$6$other$": "write this line"}.items():
            with self.subTest(salt), with_text("/etc/passwd", re.sub(r":\$6\$[^$]+\$", f":{salt}", line)):
                self.assertIn(f"/etc/system.cfg: {said}", "".join(look()))

    def test_hash_may_be_in_the_shadow_file(self):
        line = text_of("/etc/passwd")
        shadow = f"admin:{line.split(':')[1]}:1::::::\n"
        os.rename(image / "etc/shadow", work / "shadow")
        try:
            (image / "etc/shadow").write_text(shadow)
            (image / "etc/shadow").chmod(0o640)
            with with_text("/etc/passwd", re.sub(r"^admin:[^:]*", "admin:x", line)):
                self.assertEqual(look(), [])
        finally:
            os.rename(work / "shadow", image / "etc/shadow")


class HostileImages(unittest.TestCase):
    def test_no_link_leads_out_of_the_image(self):
        outside = work / "outside"
        outside.write_text(text_of("/etc/system.cfg"))
        for target in (str(outside), "../" * 30 + str(outside)):
            with self.subTest(target), replaced("/etc/system.cfg") as path:
                path.symlink_to(target)
                self.assertIn("wrong   /etc/system.cfg: is a link that leads nowhere", look()[0])

    def test_absolute_links_lead_to_files_of_the_image(self):
        os.rename(image / "etc/system.cfg", image / "var/system.cfg")
        try:
            (image / "etc/system.cfg").symlink_to("/var/../../../var/./system.cfg")
            self.assertEqual(look(), [])
        finally:
            (image / "etc/system.cfg").unlink()
            os.rename(image / "var/system.cfg", image / "etc/system.cfg")

    def test_link_loops_end(self):
        with replaced("/etc/TZ") as path:
            path.symlink_to("TZ")
            self.assertIn("/etc/TZ: is a link that leads nowhere", look()[0])

    def test_pipes_and_sockets_are_not_opened(self):
        for name in ("/etc/system.cfg", "/etc/passwd", "/usr/share/kova/camera_info.json", "/bin/cfgmtd"):
            with self.subTest(name), replaced(name) as path:
                os.mkfifo(path, 0o600)
                self.assertIn("is a pipe, not a", look()[0])
        with replaced("/etc/TZ") as path, socket.socket(socket.AF_UNIX) as server:
            server.bind(str(path))
            self.assertTrue([finding for finding in look() if "/etc/TZ: is a socket, not a file" in finding])

    def test_no_program_of_the_image_is_run(self):
        with contextlib.ExitStack() as stack:
            for _, name in path_rows("program"):
                if name != "/bin/sh":
                    stack.enter_context(with_text(name, f"#!/bin/sh\ntouch {work}/ran\n"))
            self.assertEqual(look(), [])
        self.assertFalse((work / "ran").exists())

    def test_texts_of_the_image_are_escaped(self):
        name = "/usr/share/kova/camera_info.json"
        text = json.dumps({**json.loads(text_of(name)), "sysid": "\x1b[2J" + "x" * 500})
        with with_text(name, text):
            findings = look()
        self.assertEqual(len(findings), 1)
        self.assertTrue(findings[0].isprintable())
        self.assertLess(len(findings[0]), 200)

    def test_binary_files_are_wrong(self):
        for name in ("/etc/system.cfg", "/etc/passwd", "/usr/share/kova/camera_info.json", "/etc/TZ"):
            with self.subTest(name), with_text(name, bytes(range(256)) * 64):
                self.assertTrue([finding for finding in look() if finding.startswith(f"wrong   {name}: ")])

    @unittest.skipUnless(IS_ROOT, "needs root")
    def test_unreadable_file_is_reported(self):
        place = work / "image"
        place.chmod(0o755)
        work.chmod(0o755)
        with with_mode("/etc/system.cfg", 0o600):
            words = ["setpriv", f"--reuid={NOBODY}", "--clear-groups", "--", HERE / "board-check", place]
            done = subprocess.run(words, capture_output=True, text=True, check=False)
        self.assertIn("unread  /etc/system.cfg: ", done.stdout)
        self.assertEqual(done.returncode, 2, done.stdout + done.stderr)


class Command(unittest.TestCase):
    def run_check(self, *words, path=None):
        environment = {**os.environ, **({"PATH": f"{path}:{os.environ['PATH']}"} if path else {})}
        command = [DEV, "board-check", *words]
        return subprocess.run(command, capture_output=True, text=True, env=environment, check=False)

    @unittest.skipUnless(IS_BUILT_LIKE_A_BOARD, "the programs belong to somebody else, or others may write them")
    def test_virtual_camera_passes(self):
        done = self.run_check(root_of_camera())
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        self.assertRegex(done.stdout, r"^\d+ rows: 0 missing, 0 wrong, 0 unread\n$")

    def test_exit_status_reflects_findings(self):
        with replaced("/bin/cfgmtd"):
            done = self.run_check(image)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, r"^missing /bin/cfgmtd: [^\n]+\n\d+ rows: 1 missing, 0 wrong, 0 unread\n$")

    def test_invalid_place_is_refused(self):
        for place in (work / "nothing", image / "etc/passwd", "ssh:", "ssh:-oProxyCommand=x", "ssh:a b", "ssh:a@-b"):
            with self.subTest(place):
                done = self.run_check(place)
                self.assertEqual(done.returncode, 2)
                self.assertIn("board-check: ", done.stderr)

    def test_help_lists_exit_statuses(self):
        done = self.run_check("--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn("exit status: 0", done.stdout)

    def test_relative_folder_is_relative_to_working_directory(self):
        done = subprocess.run([DEV, "board-check", "image"], cwd=work, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)


@unittest.skipUnless(IS_BUILT_LIKE_A_BOARD, "the programs belong to somebody else, or others may write them")
class OverSsh(unittest.TestCase):
    def fake(self, prelude="", body=None):
        """A folder with a fake ssh that enters the camera; the shell there runs `prelude` first."""
        folder = Path(tempfile.mkdtemp(dir=work))
        enter = f"{{ cat <<'E'\n{prelude}\nE\ncat; }} | exec {CAMERA} exec {camera} -- sh -s"
        (folder / "ssh").write_text(f"#!/bin/sh\necho \"$@\" >{folder}/words\necho Welcome\n{body or enter}\n")
        (folder / "ssh").chmod(0o755)
        return folder

    def look(self, prelude="", body=None):
        with unittest.mock.patch.dict(os.environ, PATH=f"{self.fake(prelude, body)}:{os.environ['PATH']}"):
            return look("ssh:root@board")

    def expect_no_look(self, text, **fake):
        with self.assertRaisesRegex(roots.CannotLook, text):
            self.look(**fake)

    @unittest.skipUnless(IS_ROOT, "needs root: else the machine's programs are nobody's")
    def test_running_camera_passes(self):
        folder = self.fake()
        environment = {**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"}
        words = [DEV, "board-check", "ssh:root@board"]
        done = subprocess.run(words, env=environment, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        self.assertRegex((folder / "words").read_text(), r"-- root@board sh -s\n$")
        self.assertGreater(int(done.stdout.split()[0]), len(list(path_rows())))

    def test_fresh_salt_of_a_renamed_account_is_accepted(self):
        passwd = camera / "root/etc/passwd"
        line = passwd.read_text()
        passwd.write_text(re.sub(r":\$6\$[^$]+\$", ":$6$other$", line))
        try:
            self.assertEqual(self.look(), [])
        finally:
            passwd.write_text(line)

    def test_faults_of_a_running_camera_are_found(self):
        cases = {
            "chmod 0666 /etc/system.cfg": "wrong   /etc/system.cfg: mode 0666 permits others too much: chmod 0644",
            "chmod 0777 /run/kova": "wrong   /run/kova: mode 0777",
            "mv /etc/TZ /etc/TZ.aside; mkdir /etc/TZ": "wrong   /etc/TZ: is a folder, not a file",
            "mv /etc/TZ /etc/TZ.aside; ln -s nowhere /etc/TZ": "wrong   /etc/TZ: is a link that leads nowhere",
            "cd /etc/sv/kova_ctlserver; mv supervise supervise.aside; ln -s /run/nowhere/kova_ctlserver supervise":
                "wrong   /etc/sv/kova_ctlserver/supervise: is a link that leads nowhere: let it lead into",
            "mv /run/kova/bus /run/bus.aside": "missing /run/kova/bus: start kova_bus",
            "sed -i.aside 's/:[$]6[$]/:![$]6[$]other/' /etc/passwd": f"wrong   {ACCOUNT}: the hash of the account",
        }
        undo = """chmod 0644 /etc/system.cfg; chmod 0750 /run/kova
                  if [ -e /etc/passwd.aside ]; then mv /etc/passwd.aside /etc/passwd; fi
                  if [ -e /etc/TZ.aside ]; then rm -rf /etc/TZ; mv /etc/TZ.aside /etc/TZ; fi
                  cd /etc/sv/kova_ctlserver
                  if [ -e supervise.aside ]; then rm supervise; mv supervise.aside supervise; fi
                  if [ -e /run/bus.aside ]; then mv /run/bus.aside /run/kova/bus; fi"""
        for command, finding in cases.items():
            with self.subTest(finding):
                subprocess.run([CAMERA, "exec", camera, "--", "sh", "-c", command], check=True)
                try:
                    findings = self.look()
                finally:
                    subprocess.run([CAMERA, "exec", camera, "--", "sh", "-c", undo], check=True)
                self.assertEqual([True], [found.startswith(finding) for found in findings], findings)

    def test_tmp_on_another_mount_is_found(self):
        findings = self.look('df() { echo "Filesystem"; echo "ram 1 1 1 1% /mount$2"; }')
        self.assertEqual(len(findings), 1)
        self.assertTrue(findings[0].startswith("wrong   /etc/persistent: is not on the mount of /tmp: "), findings)

    def test_private_keys_are_not_fetched(self):
        key = image / "etc/persistent/server.pem"
        with unittest.mock.patch.dict(os.environ, PATH=f"{self.fake()}:{os.environ['PATH']}"):
            root = roots.SshRoot("board")
            with contextlib.closing(root):
                target = camera / "root/etc/persistent/server.pem"
                shutil.copy(key, target)
                try:
                    pem, is_whole = root.pem("/etc/persistent/server.pem")
                finally:
                    target.unlink()
        self.assertFalse(is_whole)
        self.assertEqual(list(forms.certificate_and_key_faults(pem, is_whole)), [])
        secret = key.read_text().split("PRIVATE KEY-----\n")[1].split("\n")[0]
        self.assertNotIn(secret.encode(), pem)

    def test_camera_is_not_changed(self):
        def state():
            listed = ["find", camera / "root", "-newer", work / "stamp", "-not", "-path", "*/root/proc/*",
                      "-not", "-path", "*/root/var/log/*", "-not", "-path", "*/root/run/sv/*"]  # fmt: skip
            return subprocess.run(listed, capture_output=True, text=True, check=False).stdout

        time.sleep(0.05)
        (work / "stamp").touch()
        self.assertEqual(self.look(), [])
        self.assertEqual(look(root_of_camera()), [])
        self.assertEqual(state(), "")
        (camera / "root/tmp/changed").touch()
        self.assertIn("changed", state())
        (camera / "root/tmp/changed").unlink()

    def test_user_who_is_not_root_is_refused(self):
        self.expect_no_look("log in as user 0", prelude="id() { echo 1000; }")

    def test_ssh_failure_is_reported(self):
        self.expect_no_look("ssh ended", body="exit 255")

    def test_board_that_does_not_answer_times_out(self):
        with unittest.mock.patch.object(roots, "MOST_LOGIN_SECONDS", 0.3):
            self.expect_no_look("did not answer in time", body="exec sleep 30")

    def test_board_that_hangs_later_times_out(self):
        with unittest.mock.patch.object(roots, "MOST_SECONDS", 1):
            self.expect_no_look("did not answer in time", prelude="ls() { sleep 30; }")

    def test_board_that_floods_is_abandoned(self):
        self.expect_no_look("more than was asked", body="exec cat /dev/zero")

    def test_nonsense_listings_count_as_missing(self):
        findings = self.look("ls() { echo drwx; echo what; }")
        self.assertTrue([finding for finding in findings if finding.startswith("missing /bin/cfgmtd: ")])

    def test_listings_of_every_kind_are_read(self):
        cases = {
            "-rwsr-xr-t 1 0 0 7 Jan 1 00:00 a": roots.Node("file", 0o5755, 0, 7),
            "drwxrwxrwt. 2 0 0 40 Jan 1 00:00 b": roots.Node("folder", 0o1777, 0, 40),
            "crw-rw-rw- 1 0 5 1, 3 Jan 1 00:00 c": roots.Node("device", 0o666, 0, 0),
            "srwxrwxrwx+ 1 99 0 0 Jan 1 00:00 d": roots.Node("socket", 0o777, 99, 0),
            "-rw-r-Sr-T 1 0 0 7 Jan 1 00:00 e": roots.Node("file", 0o3644, 0, 7),
            "ls: no such file": None,
            "": None,
        }
        for line, node in cases.items():
            self.assertEqual(roots.node_of_listing(line), node, line)


class Page(unittest.TestCase):
    HEADING = "## Tools\n\n| Name | Need | Form | Code | Use | To do |\n|---|---|---|---|---|---|\n"

    def test_rows_are_read(self):
        row = contract.read(self.HEADING + "| `/a` or `/b` | with /c | program, 0755 | `d.sh` | use | do |\n")[0]
        self.assertEqual((row.names, row.need, row.form), (["/a", "/b"], "with /c", ["program", "0755"]))

    def test_malformed_page_is_refused(self):
        cases = ("| `/a` | must | a cow | `d.sh` | use | do |", "| `/a` | perhaps | file | `d.sh` | use | do |",
                 "| /a | must | file | `d.sh` | use | do |", "| `/a` | must | file | `d.sh` | use | |",
                 "| `/a` | must | file | `d.sh` | use |", "")  # fmt: skip
        for line in cases:
            with self.subTest(line), self.assertRaises(contract.Faulty):
                contract.read(self.HEADING + line + "\n")

    def test_table_of_nothing_known_is_refused(self):
        with self.assertRaises(contract.Faulty):
            contract.read(self.HEADING.replace("Tools", "Toys") + "| `/a` | must | file | `d.sh` | use | do |\n")


if __name__ == "__main__":
    unittest.main()
