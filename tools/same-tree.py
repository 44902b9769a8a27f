#!/usr/bin/env python3
"""same-tree.py A B: whether two directory trees are the same.

Compares names, types, modes, owners, modification times to the nanosecond, sizes, contents,
symlink targets, devices, extended attributes, and which names are links of one file. Prints
"identical" and exits with 0, or prints the first differences and exits with 1.
"""
import os
import stat
import sys

MAXIMUM = 20


def scan(top):
    found = {}

    def visit(path, name):
        found[name] = os.lstat(path)
        if stat.S_ISDIR(found[name].st_mode):
            for child in sorted(os.listdir(path)):
                visit(os.path.join(path, child), os.path.join(name, child))

    sys.setrecursionlimit(100000)
    visit(top, b"")
    return found


def same_content(left, right):
    with open(left, "rb") as a, open(right, "rb") as b:
        while True:
            x, y = a.read(1 << 20), b.read(1 << 20)
            if x != y:
                return False
            if not x:
                return True


def attributes(path):
    try:
        names = os.listxattr(path, follow_symlinks=False)
        return {name: os.getxattr(path, name, follow_symlinks=False) for name in sorted(names)}
    except OSError:
        return {}


def links(found):
    groups = {}
    for name, status in found.items():
        if status.st_nlink > 1 and not stat.S_ISDIR(status.st_mode):
            groups.setdefault((status.st_dev, status.st_ino), []).append(name)
    return {name: tuple(sorted(group)) for group in groups.values() for name in group}


def differences(left_top, right_top):
    left, right = scan(left_top), scan(right_top)
    left_links, right_links = links(left), links(right)
    for name in sorted(left.keys() | right.keys()):
        if name not in right or name not in left:
            yield name, "only in " + os.fsdecode(left_top if name in left else right_top)
            continue
        a, b = left[name], right[name]
        path_a, path_b = os.path.join(left_top, name), os.path.join(right_top, name)
        for what, x, y in (("mode", oct(a.st_mode), oct(b.st_mode)), ("uid", a.st_uid, b.st_uid),
                           ("gid", a.st_gid, b.st_gid),
                           ("time", a.st_mtime_ns, b.st_mtime_ns),
                           ("links", left_links.get(name), right_links.get(name)),
                           ("attributes", attributes(path_a), attributes(path_b))):
            if x != y:
                yield name, f"{what} {x} and {y}"
        if stat.S_IFMT(a.st_mode) != stat.S_IFMT(b.st_mode):
            continue
        if stat.S_ISREG(a.st_mode):
            if a.st_size != b.st_size:
                yield name, f"size {a.st_size} and {b.st_size}"
            elif not same_content(path_a, path_b):
                yield name, "content"
        elif stat.S_ISLNK(a.st_mode) and os.readlink(path_a) != os.readlink(path_b):
            yield name, "target"
        elif stat.S_ISBLK(a.st_mode) or stat.S_ISCHR(a.st_mode):
            if a.st_rdev != b.st_rdev:
                yield name, "device"


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    count = 0
    for name, what in differences(os.fsencode(sys.argv[1]), os.fsencode(sys.argv[2])):
        count += 1
        if count <= MAXIMUM:
            print(f"{os.fsdecode(name) or '.'}: {what}")
    if count:
        print(f"{count} differences")
        return 1
    print("identical")
    return 0


sys.exit(main())
