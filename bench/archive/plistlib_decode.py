"""Times what a user's script would do to read stored payloads with Python's standard library:
gunzip, plistlib, and a walk of the keyed archive's object graph into plain Python values.
Usage: plistlib_decode.py FILE ITERATIONS  -> prints nanoseconds per decode."""
import gzip
import plistlib
import sys
import time

FOUNDATION_DICTS = ("NSDictionary", "NSMutableDictionary")
FOUNDATION_ARRAYS = ("NSArray", "NSMutableArray")


def decode(raw):
    archive = plistlib.loads(gzip.decompress(raw))
    objects = archive["$objects"]

    def ref(uid):
        o = objects[uid.data]
        if not isinstance(o, dict):
            return o
        name = objects[o["$class"].data]["$classname"]
        if name in FOUNDATION_DICTS:
            return {ref(k): ref(v) for k, v in zip(o["NS.keys"], o["NS.objects"])}
        if name in FOUNDATION_ARRAYS:
            return [ref(x) for x in o["NS.objects"]]
        if name == "NSDate":
            return o["NS.time"]
        if name == "NSNull":
            return None
        return {k: (ref(v) if isinstance(v, plistlib.UID) else v) for k, v in o.items()}

    return ref(archive["$top"]["data"])


raw = open(sys.argv[1], "rb").read()
iterations = int(sys.argv[2])
decode(raw)
start = time.perf_counter()
for _ in range(iterations):
    decode(raw)
print(int((time.perf_counter() - start) / iterations * 1e9))
