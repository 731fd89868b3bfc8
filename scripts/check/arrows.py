#!/usr/bin/env -S python3 -B
"""Includes between the project's rooms run one way, and no files include each other in a circle.

A room is the longest prefix of a file's path in ROOMS. It may include its own files and those of the rooms named
there, and nothing else of ours. Tests, benchmarks, fuzzers and scripts are free: they look behind doors on purpose. So are
packaging/, which sees an installed tree only, and the programs beside a script.
"""
import sys

from includes import graph

PUBLIC = {"include/", "platform/include/", "proto/"}
GROUND = PUBLIC | {"app/list.hpp", "app/fp_udp_dbg/channel/"}
ROOMS = {
    "include/": set(),
    "platform/include/": set(),
    "proto/": set(),
    "app/list.hpp": {"include/"},
    "app/fp_udp_mgr/": GROUND | {"app/fp_udp_acldb/", "app/fp_udp_req_mng/", "app/fp_udp_log/"},
    "app/fp_udp_acldb/": GROUND | {"app/fp_udp_req_mng/"},
    "app/fp_udp_req_mng/": GROUND,
    "app/fp_udp_log/": GROUND,
    # The diagnostic channel is the ground, on which all stand. The commands are the roof: they read what the areas below
    # export, through the public headers, and nothing includes them.
    "app/fp_udp_dbg/channel/": PUBLIC,
    "app/fp_udp_dbg/commands/": GROUND,
    # The reference platform knows no record type, and its libraries know each other by their contracts alone.
    "platform/guard.hpp": {"platform/include/"},
    "platform/mom/": {"platform/include/", "platform/guard.hpp"},
    "platform/time/": {"platform/include/", "platform/guard.hpp"},
    "platform/zlog/": {"platform/include/", "platform/guard.hpp"},
    "platform/ssat/": {"platform/include/", "platform/guard.hpp"},
    "platform/topics/": {"platform/include/", "platform/guard.hpp", "platform/topics/tq_topics.proto"},
    # The topics' record type is for readers too.
    "platform/topics/tq_topics.proto": set(),
    # What nodes and tools share. Neither includes the other for it.
    "records/": PUBLIC,
    # The node knows no particular plane, and no plane another.
    "plane/": PUBLIC | {"records/"},
    "plane/simulated/": PUBLIC | {"records/", "plane/"},
    # What entries do to packets, without anybody who does it.
    "plane/packet/": PUBLIC | {"records/"},
    "plane/nftables/": PUBLIC | {"records/", "plane/", "plane/packet/"},
    "tools/": PUBLIC | {"records/", "plane/", "plane/simulated/", "plane/packet/", "plane/nftables/",
               "platform/topics/tq_topics.proto"},
    "examples/": PUBLIC,
}
FREE = ("tests/", "bench/", "fuzz/", "docs/", "packaging/", "scripts/")


def room_of(name):
    return max((room for room in ROOMS if name.startswith(room)), key=len, default=None)


def arrow_faults(edges):
    for name, targets in edges.items():
        if name.startswith(FREE):
            continue
        room = room_of(name)
        if room is None:
            yield f"{name}: stands in no room of the plan"
            continue
        for target in targets:
            if room_of(target) not in ROOMS[room] | {room}:
                yield f"{name}: must not include {target}"


def circle(edges):
    """A path of files that comes back to its start, or None."""
    done = set()

    def walk(name, path):
        if name in path:
            return path[path.index(name):] + [name]
        if name in done:
            return None
        for target in edges.get(name, ()):
            found = walk(target, path + [name])
            if found:
                return found
        done.add(name)
        return None

    return next(filter(None, (walk(name, []) for name in edges)), None)


def main():
    edges, lost = graph()
    faults = [f'{name}: no file for #include "{text}"' for name, text in lost]
    faults += arrow_faults(edges)
    found = circle(edges)
    if found:
        faults.append("a circle of includes: " + " -> ".join(found))
    for fault in faults:
        print("arrows:", fault, file=sys.stderr)
    arrows = sum(map(len, edges.values()))
    print(f"arrows: {arrows} includes between {len(edges)} files, {len(faults)} faults")
    return 1 if faults or not arrows else 0


if __name__ == "__main__":
    sys.exit(main())
