#!/usr/bin/env -S python3 -B
"""users.py [accept]: the store's shipped users may do what their role needs, by name.

packaging/redis/plx-store.acl is made from the lists below and from the scripts of platform/mom/redis_scripts.cpp: a user
may call those alone, by their digests, and touch the tables named here in the databases 0 to 99. A pattern has a `?` for
each digit, since a `*` there would also match a record of another table whose key was made up to. `accept` makes it anew."""
import hashlib
import os
import re
import sys

FILE = "packaging/redis/plx-store.acl"
SCRIPTS = "platform/mom/redis_scripts.cpp"
# The server compares in this order, at every command: the busiest stand first.
REQUESTED = ["ace", "apply", "acl", "port_off", "port_bindinfo", "uplink", "svi_router"]
MARKERS = ["app_commit", "acl_refresh", "topic", "node_call", "node_query", "apply_lock", "policy_copy",
           "policy_kept", "policy_file"]
STATUS = [name + "_psta" for name in REQUESTED if name != "acl"]
OF_NODES = ["ace_counter", "service_node", "node_report"]
ANSWERS = ["node_answer"]  # written by nodes, deleted by who asked
READ = ("+ping +role +info +client|id +client|unblock +hgetall +hget +hmget +hstrlen +zrangebylex +xread +xrange "
        "+xrevrange +xinfo|stream")
WRITE = ("+time +wait +memory|usage +multi +exec +discard +script|load +hexists +hlen +hset +hsetnx +hincrby +hdel +del "
         "+exists +zadd +zrem +xadd +xtrim")
HEAD = """user default off resetpass allkeys allchannels +@all
"""
# What a replica needs of its master, and a sentinel of both.
TAIL = """user plx-replica on >change-me-replica resetkeys resetchannels -@all +ping +psync +replconf
user plx-sentinel on >change-me-sentinel resetkeys allchannels -@all +ping +info +role +hello +auth +subscribe +publish +replicaof +slaveof +multi +exec +config|rewrite +client|setname +client|kill +script|kill
user plx-operator on >change-me-operator allkeys allchannels +@all
"""


def patterns(tables, rest="*"):
    return " ".join(f"~plx{{{digits}:{table}}}{rest}" for table in tables for digits in ("?", "??"))


def made():
    with open(SCRIPTS, encoding="utf-8") as source:
        texts = re.findall(r'constexpr char \w+_text\[\] = R"\((.*?)\)";', source.read(), re.S)
    calls = " ".join(f"+evalsha|{hashlib.sha1(text.encode()).hexdigest()}" for text in texts)
    everything = REQUESTED + STATUS + OF_NODES + MARKERS + ANSWERS
    users = HEAD
    for role, tables in (("application", REQUESTED + STATUS + MARKERS + ANSWERS),
                         ("node", STATUS + OF_NODES + ANSWERS + ["node_call"])):
        users += (f"user plx-{role} on >change-me-{role} resetkeys {patterns(tables)} {patterns(everything, '/readers')} "
                  f"%R~plx{{*}}* resetchannels -@all {READ} {WRITE} {calls}\n")
    users += f"user plx-reader on >change-me-reader resetkeys %R~plx{{*}}* resetchannels -@all {READ}\n"
    return users + TAIL


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
    if sys.argv[1:] == ["accept"]:
        with open(FILE, "w", encoding="utf-8") as out:
            out.write(made())
    with open(FILE, encoding="utf-8") as shipped:
        if shipped.read() != made():
            print(f"users: {FILE} is not what {SCRIPTS} and the roles make of it; if this is meant, "
                  "scripts/check/users.py accept", file=sys.stderr)
            return 1
    print("users: as made")
    return 0


if __name__ == "__main__":
    sys.exit(main())
