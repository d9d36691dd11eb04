"""The formats of a board's files: each check yields short descriptions of faults. No secret is printed."""

import json
import math
import os
import re
import ssl

MOST_STORE = 1024 * 1024
ACCOUNT_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_.-]{0,31}")
# crypt(3), including the 13 characters of its oldest scheme; a leading "!" locks the account.
PASSWORD_HASH = re.compile(r"!?(?:\$[A-Za-z0-9]+\$[A-Za-z0-9./$,=+_-]{8,}|[A-Za-z0-9./]{13})")


def shown(value):
    """A text of the board for display: short, and without terminal escapes."""
    text = ascii(value)
    return text if len(text) <= 40 else text[:36] + "..."


def parse_settings(text):
    """Each key with the list of its values; the last one counts."""
    settings = {}
    for line in text.split("\n"):
        key, equals, value = line.partition("=")
        if equals and key and not key.startswith("#"):
            settings.setdefault(key, []).append(value)
    return settings


def settings_faults(text):
    if len(text) > MOST_STORE - 1:
        yield "it is larger than 1 MiB"
    if "\0" in text or "\r" in text:
        yield "it holds a NUL or a carriage return"
    for number, line in enumerate(text.split("\n"), 1):
        if line.strip() and not line.startswith("#") and not re.match(r"[^=\s][^=]*=", line):
            yield f"line {number} is neither key=value nor a comment"
            return


def accounts(text):
    return [line.split(":") for line in text.split("\n") if line]


def accounts_faults(text):
    for number, line in enumerate(text.rstrip("\n").split("\n"), 1):
        fields = line.split(":")
        if len(fields) != 7 or not fields[0] or not fields[2].isdigit() or not fields[3].isdigit():
            yield f"line {number} is no account line"
            return


def refuse_constant(name):
    raise ValueError(name)


def parse_description(text):
    """The keys of a device description; None if it is not a JSON object."""
    try:
        description = json.loads(text, parse_constant=refuse_constant)
    except (ValueError, RecursionError):
        return None
    return description if isinstance(description, dict) else None


def certificate_faults(pem):
    blocks = re.findall(rb"-----BEGIN CERTIFICATE-----.+?-----END CERTIFICATE-----", pem, re.DOTALL)
    if not blocks:
        yield "it holds no certificate"
        return
    try:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.load_verify_locations(cadata=b"\n".join(blocks).decode("ascii"))
    except (ssl.SSLError, ValueError):
        yield "its certificate cannot be parsed"


def refuse_password():
    raise PermissionError


def pair_faults(pem):
    """Whether OpenSSL loads certificate and key as a pair, from memory."""
    fd = os.memfd_create("pair")
    try:
        os.write(fd, pem)
        ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT).load_cert_chain(f"/proc/self/fd/{fd}", password=refuse_password)
    except PermissionError:
        yield "its key is encrypted, and the daemon knows no password"
    except (ssl.SSLError, OSError, ValueError):
        yield "its key cannot be parsed, or is not that of its certificate"
    finally:
        os.close(fd)


def certificate_and_key_faults(pem, is_whole):
    found = list(certificate_faults(pem))
    if not re.search(rb"-----BEGIN [A-Z ]*PRIVATE KEY-----", pem):
        found.append("it holds no private key")
    elif b"ENCRYPTED" in pem:
        found.append("its key is encrypted, and the daemon knows no password")
    elif is_whole and not found:
        found += pair_faults(pem)
    return found


def is_integer(value):
    return isinstance(value, int) and not isinstance(value, bool)


def is_number(value):
    return is_integer(value) or (isinstance(value, float) and math.isfinite(value))


def is_user(value):
    return (isinstance(value, str) and value != "") or (is_integer(value) and value >= 0)


# Keys of the device description: the required form, in words and as a predicate.
DESCRIPTION_FORMS = {
    "text": ("a text that is not empty", lambda value: isinstance(value, str) and value != ""),
    "integer": ("an integer from 0 to 4294967295", lambda value: is_integer(value) and 0 <= value < 1 << 32),
    "number": ("a number", is_number),
    "boolean": ("true or false", lambda value: isinstance(value, bool)),
    "absolute path": ('a text that begins with "/"', lambda value: isinstance(value, str) and value.startswith("/")),
    "user": ("a user's number or name", is_user),
}

# The same for keys of system.cfg; the time zone is looked up in the root.
SETTING_FORMS = {
    "any text": ("a text", lambda value: True),
    "text": ("a text that is not empty", lambda value: value.strip() != ""),
    "integer": ("an integer", lambda value: re.fullmatch(r"-?\d{1,9}", value, re.ASCII)),
    "account name": ('a letter or "_", then at most 31 of these, digits, ".", "-"', ACCOUNT_NAME.fullmatch),
    "password hash": ("a hash of crypt(3)", PASSWORD_HASH.fullmatch),
}
