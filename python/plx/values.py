"""Values of attributes, packed as plx-attributes(7) tells: the same texts as in a policy file, or Python's own types."""
import ipaddress

from ._forms import FORMS, WORDS


def pack(cls, name, value):
    """The bytes of a value. Bytes are taken as they are; a mask stands behind "/"; what does not fit raises ValueError."""
    if isinstance(value, (bytes, bytearray)):
        return bytes(value)
    try:
        kind, size, masked, words = FORMS[cls][name]
    except KeyError:
        raise ValueError(f"no attribute of this kind is named {name}") from None
    try:
        return _pack(kind, size, masked, WORDS.get(words, {}), value)
    except (ValueError, OverflowError) as error:
        raise ValueError(f"{name}: {value!r} is not a value of the form {kind} {size}: {error}") from None


def _pack(kind, size, masked, words, value):
    text = str(value)
    if kind == "range":
        low, _, high = text.partition("-")
        low, high = _number(low, 16, words), _number(high or low, 16, words)
        if high < low:
            raise ValueError("the range is empty")
        return low.to_bytes(2, "big") + high.to_bytes(2, "big")
    if kind == "ports":
        return _ports(text, size * 8)
    if kind == "flag":
        return bytes([_flag(text)])
    one = {"number": lambda part: _number(part, size, words), "mac": _mac,
           "octets": lambda part: _octets(part, size)}.get(kind, lambda part: _address(part, kind))
    bits = {"number": size, "octets": size * 8, "mac": 48, "ipv4": 32, "ipv6": 128, "ipv6-upper": 64}[kind]
    value, slash, mask = text.partition("/")
    number = one(value)
    if not slash:
        return _bytes(number, kind, bits)
    if not masked:
        raise ValueError("it takes no mask")
    of_mask = _prefix(mask, bits) if kind not in ("number", "octets") and mask.isdigit() else one(mask)
    if number & ~of_mask:
        raise ValueError("bits are set that the mask leaves out")
    return _bytes(number, kind, bits) + _bytes(of_mask, kind, bits)


def _bytes(number, kind, bits):
    if kind != "number":
        return number.to_bytes(bits // 8, "big")
    return number.to_bytes(1 if bits <= 8 else 2 if bits <= 16 else 4, "big")


def _prefix(text, bits):
    if int(text) > bits:
        raise ValueError(f"a prefix has at most {bits} bits")
    return (1 << bits) - (1 << (bits - int(text)))


def _octets(text, size):
    raw = bytes.fromhex(text.removeprefix("0x"))
    if len(raw) != size:
        raise ValueError(f"{size} bytes are meant")
    return int.from_bytes(raw, "big")


def _number(text, bits, words):
    number = 0
    for part in text.split("+"):
        number |= words[part] if part in words else int(part, 0)
    if not 0 <= number < 1 << bits:
        raise ValueError(f"it has at most {bits} bits")
    return number


def _mac(text):
    raw = bytes.fromhex(text.replace(":", "").replace("-", ""))
    if len(raw) != 6:
        raise ValueError("six bytes are meant")
    return int.from_bytes(raw, "big")


def _address(text, kind):
    if kind == "ipv4":
        return int(ipaddress.IPv4Address(text))
    number = int(ipaddress.IPv6Address(text))
    if kind == "ipv6":
        return number
    if number & (1 << 64) - 1 and number != (1 << 128) - 1:
        raise ValueError("its second half is not zero")
    return number >> 64


def _flag(text):
    words = {"true": 1, "yes": 1, "on": 1, "1": 1, "false": 0, "no": 0, "off": 0, "0": 0}
    if text.lower() not in words:
        raise ValueError("true or false is meant")
    return words[text.lower()]


def _ports(text, count):
    bitmap = 0
    for part in text.split(","):
        low, _, high = part.partition("-")
        for port in range(int(low), int(high or low) + 1):
            if not 0 <= port < count:
                raise ValueError(f"ports are 0 to {count - 1}")
            bitmap |= 1 << (count - 1 - port)
    return bitmap.to_bytes(count // 8, "big")
