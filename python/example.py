#!/usr/bin/env python3
"""The smallest complete application in Python: one ACL with two entries, bound to a port, and what became of them.

    example.py [STORE [NODES]]

STORE is the address of the policy store; without it PLX_STORE is taken. NODES is how many service nodes must be alive
first, 1 when it is not given. Ends with 0 when everything is programmed, 3 when something failed, 4 when nodes or
answers did not come in time, 5 when the store cannot be reached.
"""
import asyncio
import sys

import plx


def write(app):
    """The binding first: an entry of an ACL that is bound to no port needs nobody's confirmation."""
    app.set_acl(1)
    return [app.set_apply(1, port=7, priority=10),
            app.set_ace(1, 10, match={"ipv4_src": "192.0.2.0/24", "ipv4_proto": "tcp"}, action={"fwd": "deny"}),
            app.set_ace(1, 20, action={"fwd": "permit"}, default=True)]


async def again(app):
    app.attach()
    return await asyncio.wait_for(asyncio.gather(*write(app)), 10)


def main(store=None, nodes="1"):
    try:
        with plx.Application("python", store) as app:
            app.wait_for_nodes(int(nodes))
            write(app)
            outcomes = list(app.outcomes())
            outcomes += asyncio.run(again(app))
    except TimeoutError as error:
        print(f"example: {error}", file=sys.stderr)
        return 4
    except (plx.Error, OSError) as error:
        print(f"example: {error}", file=sys.stderr)
        return 5
    for outcome in outcomes:
        print(outcome)
    return 0 if all(outcome.ok for outcome in outcomes) else 3


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
