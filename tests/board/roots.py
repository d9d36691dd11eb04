"""The root file system of a board: a folder, or a running board over ssh. Read-only."""

import os
import re
import secrets
import select
import shlex
import stat
import subprocess
import time
from dataclasses import dataclass

MOST_BYTES = 1024 * 1024  # of one file
MOST_LINKS = 40
MOST_LOGIN_SECONDS = 120  # the user may have to type a password
MOST_SECONDS = 60  # for everything after the login
KINDS = {
    stat.S_IFREG: "file",
    stat.S_IFDIR: "folder",
    stat.S_IFLNK: "link",
    stat.S_IFSOCK: "socket",
    stat.S_IFCHR: "device",
    stat.S_IFBLK: "device",
    stat.S_IFIFO: "pipe",
}


class CannotLook(Exception):
    """The root cannot be read at all."""


class Unreadable(Exception):
    """This user may not read the file."""


@dataclass
class Node:
    kind: str
    mode: int
    owner: int
    size: int


class FolderRoot:
    """Resolves links as if the folder were "/", so that none leads out of it. Opens only regular files and folders."""

    is_running = False

    def __init__(self, path):
        try:
            self._top = os.open(path, os.O_PATH | os.O_DIRECTORY)
        except OSError as error:
            raise CannotLook(f"{path}: {error.strerror}") from error
        # An ordinary user who unpacks an image owns all its files.
        self.roots = {0, os.fstat(self._top).st_uid}

    def close(self):
        os.close(self._top)

    def node(self, path, follow=True):
        """None if there is no such file."""
        fd = self._open(path, follow)
        if fd is None:
            return None
        try:
            info = os.fstat(fd)
        finally:
            os.close(fd)
        return Node(KINDS.get(stat.S_IFMT(info.st_mode), "file"), stat.S_IMODE(info.st_mode), info.st_uid, info.st_size)

    def read(self, path, limit=MOST_BYTES):
        """The first `limit` bytes of a regular file; None if there is none."""
        fd = self._open(path, follow=True)
        if fd is None:
            return None
        try:
            if not stat.S_ISREG(os.fstat(fd).st_mode):
                return None
            with open(f"/proc/self/fd/{fd}", "rb") as file:
                return file.read(limit)
        except OSError as error:
            raise Unreadable(path) from error
        finally:
            os.close(fd)

    def last_line(self, path):
        return (self.read(path) or b"").rstrip(b"\n").rpartition(b"\n")[2]

    def pem(self, path):
        """The content of a PEM file, and whether that includes its private key."""
        return self.read(path) or b"", True

    def _open(self, path, follow):
        """A descriptor of O_PATH, or None."""
        stack, links = [os.dup(self._top)], 0
        left = [word for word in path.split("/") if word]
        try:
            while left:
                word = left.pop(0)
                if word == ".":
                    continue
                if word == "..":
                    if len(stack) > 1:
                        os.close(stack.pop())
                    continue
                fd = os.open(word, os.O_PATH | os.O_NOFOLLOW, dir_fd=stack[-1])
                stack.append(fd)
                if not stat.S_ISLNK(os.fstat(fd).st_mode) or not (left or follow):
                    continue
                links += 1
                if links > MOST_LINKS:
                    return None
                target = os.readlink("", dir_fd=fd)
                os.close(stack.pop())
                if target.startswith("/"):
                    while len(stack) > 1:
                        os.close(stack.pop())
                left = [part for part in target.split("/") if part] + left
            return stack.pop()
        except PermissionError as error:
            raise Unreadable(path) from error
        except (OSError, ValueError):  # there is none, its name is too long or holds a NUL
            return None
        finally:
            for fd in stack:
                os.close(fd)


MODE = re.compile(r"([-dlscbp])([-rwxsStT]{9})")
LETTERS = {"-": "file", "d": "folder", "l": "link", "s": "socket", "c": "device", "b": "device", "p": "pipe"}


def octal(letters):
    """The mode from the nine letters of ls(1)."""
    mode = 0
    for index, letter in enumerate(letters):
        if letter not in "-ST":
            mode |= 0o400 >> index
        if letter in "sStT":
            mode |= 0o4000 >> index // 3
    return mode


def node_of_listing(line):
    """Parses a line of "ls -ldn"; None if it is not one."""
    words = line.split()
    mode = MODE.match(words[0]) if words else None
    if not mode or len(words) < 5 or not words[2].isdigit():
        return None
    size = int(words[4]) if words[4].isdigit() else 0
    return Node(LETTERS[mode.group(1)], octal(mode.group(2)), int(words[2]), size)


class SshRoot:
    """One session whose shell runs one command after the other; each answer ends with an unguessable line."""

    is_running = True
    roots = {0}

    def __init__(self, host):
        if not re.fullmatch(r"(?:[A-Za-z0-9_][\w.-]*@)?[A-Za-z0-9_\[:][\w.:%\[\]-]*", host, re.ASCII):
            raise CannotLook(f'"{host}" is no host: ssh:[USER@]HOST')
        self._mark = secrets.token_hex(16)
        self._deadline = time.monotonic() + MOST_LOGIN_SECONDS
        self._nodes = {}
        command = ["ssh", "-T", "-o", "ConnectTimeout=15", "--", host, "sh -s"]
        try:
            self._ssh = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
        except OSError as error:
            raise CannotLook(f"ssh: {error.strerror}") from error
        self._answers = select.poll()
        self._answers.register(self._ssh.stdout, select.POLLIN)
        try:
            self._run("LC_ALL=C; export LC_ALL")  # also discards the login banner
            self._deadline = time.monotonic() + MOST_SECONDS
            if self._run("id -u").strip() != b"0":
                raise CannotLook("log in as user 0 of the board: only that sees everything")
        except BaseException:
            self.close()
            raise

    def close(self):
        self._ssh.kill()
        self._ssh.wait()
        self._ssh.stdin.close()
        self._ssh.stdout.close()

    def node(self, path, follow=True):
        key = path, follow
        if key not in self._nodes:
            flags = "-ldnL" if follow else "-ldn"
            listing = self._run(f"ls {flags} {shlex.quote(path)} 2>/dev/null").decode(errors="replace")
            node = node_of_listing(listing)
            # Some ls(1) list a dangling link itself.
            self._nodes[key] = None if follow and node and node.kind == "link" else node
        return self._nodes[key]

    def read(self, path, limit=MOST_BYTES):
        node = self.node(path)
        if not node or node.kind != "file":
            return None
        block = min(limit, 4096)
        return self._run(f"dd if={shlex.quote(path)} bs={block} count={-(-limit // block)} 2>/dev/null")[:limit]

    def last_line(self, path):
        return self._run(f"tail -n 1 {shlex.quote(path)} 2>/dev/null").rstrip(b"\n")

    def pem(self, path):
        lines = "/-BEGIN CERTIFICATE-/,/-END CERTIFICATE-/p;/-BEGIN [A-Z ]*PRIVATE KEY-/p;/ENCRYPTED/p"
        return self._run(f"sed -n '{lines}' {shlex.quote(path)} 2>/dev/null"), False

    def mount_of(self, path):
        return self._run(f"df -P {shlex.quote(path)} 2>/dev/null").decode(errors="replace").rstrip("\n").split(" ")[-1]

    def _run(self, command):
        """Runs a command on the board and returns its output."""
        end = f"\n={self._mark}\n".encode()
        try:
            # The shell joins the two halves, so that a board that echoes its input does not end the answer.
            half = len(self._mark) // 2
            mark = f"'{self._mark[:half]}''{self._mark[half:]}'"
            self._ssh.stdin.write(f"{{ {command}; }} </dev/null; printf '\\n=%s\\n' {mark}\n".encode())
        except OSError:
            pass  # ssh has exited; the loop below reads EOF
        answer = b""
        while not answer.endswith(end):
            left = self._deadline - time.monotonic()
            if left <= 0 or not self._answers.poll(left * 1000):
                raise CannotLook("the board did not answer in time")
            part = self._ssh.stdout.read(65536)
            if not part:
                raise CannotLook("ssh ended; the lines above tell why")
            answer += part
            if len(answer) > 2 * MOST_BYTES:
                raise CannotLook("the board answers with more than was asked")
        return answer[: -len(end)]


def open_root(place):
    return SshRoot(place[len("ssh:") :]) if place.startswith("ssh:") else FolderRoot(place)
