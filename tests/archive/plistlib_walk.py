"""Reads a stored payload (gzip or not) with Python's own plistlib, walks the keyed archive's
object graph independently of the C++ code, and prints {"top": ..., "classes": ...} as JSON in
the fixtures' value convention. Exits non-zero on anything that is not a well-formed archive."""
import base64
import datetime
import gzip
import json
import plistlib
import sys

raw = open(sys.argv[1], "rb").read()
if raw[:2] == b"\x1f\x8b":
    raw = gzip.decompress(raw)
archive = plistlib.loads(raw, fmt=plistlib.FMT_BINARY)
assert archive["$archiver"] == "NSKeyedArchiver", archive["$archiver"]
assert archive["$version"] == 100000
objects = archive["$objects"]
assert objects[0] == "$null"
classes = {}
EPOCH = datetime.datetime(2001, 1, 1, tzinfo=datetime.timezone.utc)


def scalar(v):
    if isinstance(v, bool):
        return v
    if isinstance(v, (int, float, str)):
        return v
    if isinstance(v, bytes):
        return {"$data": base64.b64encode(v).decode()}
    raise ValueError("unexpected inline value %r" % (v,))


def field(v, path):
    if isinstance(v, plistlib.UID):
        return ref(v.data, path)
    if isinstance(v, list):
        return [field(x, path) for x in v]
    return scalar(v)


def ref(n, path):
    if n == 0:
        return {"$nil": True}
    if n in path:
        return {"$cycle": n}
    o = objects[n]
    if not isinstance(o, dict):
        return scalar(o)
    path = path | {n}
    desc = objects[o["$class"].data]
    name = desc["$classname"]
    classes[name] = desc.get("$classes")
    if name in ("NSDictionary", "NSMutableDictionary"):
        keys = [ref(k.data, path) for k in o["NS.keys"]]
        values = [ref(v.data, path) for v in o["NS.objects"]]
        assert len(keys) == len(values)
        if all(isinstance(k, str) and not k.startswith("$") for k in keys):
            return dict(zip(keys, values))
        return {"$dict": [[k, v] for k, v in zip(keys, values)]}
    if name in ("NSArray", "NSMutableArray"):
        return [ref(x.data, path) for x in o["NS.objects"]]
    if name in ("NSSet", "NSMutableSet"):
        return {"$set": [ref(x.data, path) for x in o["NS.objects"]]}
    if name == "NSDate":
        t = o["NS.time"]
        when = EPOCH + datetime.timedelta(seconds=t)
        return {"$date": when.strftime("%Y-%m-%dT%H:%M:%S.%fZ"), "$time": t}
    if name == "NSNull":
        return None
    if name == "NSUUID":
        h = o["NS.uuidbytes"].hex().upper()
        return {"$uuid": "-".join([h[:8], h[8:12], h[12:16], h[16:20], h[20:]])}
    out = {"$class": name}
    for k, v in o.items():
        if k != "$class":
            out[k] = field(v, path)
    return out


top = {k: field(v, frozenset()) for k, v in archive["$top"].items()}
print(json.dumps({"top": top, "classes": classes}))
