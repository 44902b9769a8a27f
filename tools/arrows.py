#!/usr/bin/env python3
"""Fails on an #include between rooms that the table in ARCHITECTURE.md doesn't allow.

A row of the table is `| `room` | what it owns | rooms it may use |`. A room may use itself and,
through the rooms that its row names, all that they may use.
"""
import pathlib
import re
import sys

root = pathlib.Path(__file__).resolve().parent.parent
rooms = {}
for line in (root / "ARCHITECTURE.md").read_text().splitlines():
    cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
    if len(cells) == 3 and re.fullmatch(r"`[\w/]+`", cells[0]):
        rooms[cells[0].strip("`")] = re.findall(r"`([\w/]+)`", cells[2])


def reach(room, seen):
    if room not in seen:
        seen.add(room)
        for used in rooms[room]:
            reach(used, seen)
    return seen


def room_of(path):
    return max((r for r in rooms if path.startswith(r + "/")), key=len, default=None)


faults = [f"{room}: the table names no room {used}" for room, used_rooms in rooms.items()
          for used in used_rooms if used not in rooms]
checked = 0
if not faults:
    for top in ("base", "replication", "peers"):
        for source in sorted((root / top).rglob("*")):
            if source.suffix not in (".h", ".cpp"):
                continue
            name = str(source.relative_to(root))
            room = room_of(name)
            if room is None:
                faults.append(f"{name}: its folder is no room of the table")
                continue
            allowed = reach(room, set())
            for number, line in enumerate(source.read_text().splitlines(), 1):
                include = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
                if not include:
                    continue
                checked += 1
                target = room_of(include.group(1))
                if target is None:
                    faults.append(f"{name}:{number}: {include.group(1)} is in no room")
                elif target not in allowed:
                    faults.append(f"{name}:{number}: {room} may not use {target}")

print("\n".join(faults) if faults else f"{checked} includes of {len(rooms)} rooms, all allowed")
sys.exit(bool(faults))
