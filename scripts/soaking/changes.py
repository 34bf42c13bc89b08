"""Data that is published: trees of files, and what becomes of them from one version to the next."""

import os
import shutil
import sqlite3

from soaking import files

WORDS = ["alder", "beech", "cedar", "elm", "fir", "hazel", "larch", "maple", "oak", "pine", "rowan", "yew"]


def new_tree(directory, chance, large):
    """The first version: text, something binary, a directory, an SQLite file."""
    os.makedirs(os.path.join(directory, "sub"))
    files.write_bytes(os.path.join(directory, "blob.bin"),
                      chance.randbytes((1 << 20) + 300000 if large else 20000))
    files.write_bytes(os.path.join(directory, "notes ü.txt"), text_of(chance, 40))
    files.write_bytes(os.path.join(directory, "sub", "list.txt"), text_of(chance, 200))
    connection = sqlite3.connect(os.path.join(directory, "table.db"))
    connection.execute("CREATE TABLE tree(id INTEGER PRIMARY KEY, name TEXT, height REAL)")
    connection.executemany("INSERT INTO tree VALUES(?, ?, ?)",
                           [(i, chance.choice(WORDS) + str(i), chance.random() * 40) for i in range(120)])
    connection.commit()
    connection.close()


def text_of(chance, lines):
    return "".join("%s %d\n" % (chance.choice(WORDS), chance.randrange(1000))
                   for _ in range(lines)).encode()


def paths_in(directory):
    found = []
    for where, _, names in os.walk(directory):
        found += [os.path.relpath(os.path.join(where, name), directory) for name in names]
    return sorted(found)


def change(directory, chance, limit):
    """Changes the tree a little in one to four ways, and returns their names."""
    done = []
    for _ in range(chance.choice([1, 1, 2, 3, 4])):
        kinds = list(KINDS)
        if sum(os.path.getsize(os.path.join(directory, path)) for path in paths_in(directory)) > limit:
            kinds = ["remove", "truncate"]
        kind = chance.choice(kinds)
        if KINDS[kind](directory, chance):
            done.append(kind)
    if not paths_in(directory):
        KINDS["new"](directory, chance)
        done.append("new")
    return done


def make_directory(path):
    """Whether it is there now: a file may be in its way."""
    try:
        os.makedirs(path, exist_ok=True)
        return True
    except (FileExistsError, NotADirectoryError):
        return False


def plain_of(directory, paths):
    return [path for path in paths if not path.endswith(".db")]


def pick(directory, chance, paths):
    return os.path.join(directory, chance.choice(paths)) if paths else None


def add(directory, chance):
    where = chance.choice(["", "sub", "sub/deep", "more"])
    target = os.path.join(directory, where)
    if not make_directory(target):
        return False
    path = os.path.join(target, "%s-%d%s" % (chance.choice(WORDS), chance.randrange(100),
                                             chance.choice([".txt", ".bin", "", " b.dat"])))
    if os.path.isdir(path):
        return False
    files.write_bytes(path, chance.randbytes(chance.choice([0, 1, 500, 5000, 30000])))
    return True


def remove(directory, chance):
    paths = paths_in(directory)
    if len(paths) < 2:
        return False
    path = pick(directory, chance, paths)
    os.remove(path)
    drop_empty(directory, os.path.dirname(path))
    return True


def drop_empty(directory, where):
    while where != directory and not os.listdir(where):
        os.rmdir(where)
        where = os.path.dirname(where)


def rename(directory, chance):
    path = pick(directory, chance, paths_in(directory))
    target = os.path.join(directory, chance.choice(["", "sub", "moved"]),
                          "renamed-%d%s" % (chance.randrange(50), os.path.splitext(path or "")[1]))
    if path is None or os.path.lexists(target) or not make_directory(os.path.dirname(target)):
        return False
    os.rename(path, target)
    drop_empty(directory, os.path.dirname(path))
    return True


def edit(directory, chance):
    path = pick(directory, chance, plain_of(directory, paths_in(directory)))
    if path is None:
        return False
    data = bytearray(files.read_bytes(path))
    for _ in range(chance.randrange(1, 6)):
        at = chance.randrange(len(data) + 1)
        data[at:at + chance.choice([0, 1, 20])] = chance.randbytes(chance.choice([1, 7, 60]))
    files.write_bytes(path, bytes(data))
    return True


def empty(directory, chance):
    path = pick(directory, chance, plain_of(directory, paths_in(directory)))
    if path is None:
        return False
    files.write_bytes(path, b"")
    return True


def truncate(directory, chance):
    path = pick(directory, chance, plain_of(directory, paths_in(directory)))
    if path is None or os.path.getsize(path) < 2:
        return False
    os.truncate(path, chance.randrange(os.path.getsize(path)))
    return True


def grow(directory, chance):
    path = pick(directory, chance, plain_of(directory, paths_in(directory)))
    if path is None:
        return False
    with open(path, "ab") as file:
        file.write(chance.randbytes(chance.choice([3000, 60000, 250000])))
    return True


def replace(directory, chance):
    path = pick(directory, chance, plain_of(directory, paths_in(directory)))
    if path is None:
        return False
    files.write_bytes(path, chance.randbytes(chance.choice([10, 4000, 25000])))
    return True


def permissions(directory, chance):
    path = pick(directory, chance, paths_in(directory))
    os.chmod(path, chance.choice([0o644, 0o755, 0o600, 0o444]))
    return True


def file_to_directory(directory, chance):
    path = pick(directory, chance, plain_of(directory, paths_in(directory)))
    if path is None:
        return False
    os.remove(path)
    os.makedirs(path)
    files.write_bytes(os.path.join(path, "inside.txt"), text_of(chance, 5))
    return True


def directory_to_file(directory, chance):
    found = sorted(os.path.join(where, name) for where, names, _ in os.walk(directory) for name in names)
    if not found:
        return False
    path = chance.choice(found)
    shutil.rmtree(path)
    files.write_bytes(path, text_of(chance, 5))
    return True


def with_database(directory, chance, action):
    paths = [path for path in paths_in(directory) if path.endswith(".db")]
    path = pick(directory, chance, paths) or os.path.join(directory, "again.db")
    if os.path.isdir(path):
        return False
    os.chmod(path, 0o644) if os.path.exists(path) else None
    connection = sqlite3.connect(path)
    try:
        tables = [row[0] for row in
                  connection.execute("SELECT name FROM sqlite_master WHERE type='table' ORDER BY name")]
        action(connection, tables)
        connection.commit()
    finally:
        connection.close()
    return True


def rows(directory, chance):
    def action(connection, tables):
        if not tables:
            connection.execute("CREATE TABLE tree(id INTEGER PRIMARY KEY, name TEXT, height REAL)")
            tables = ["tree"]
        table = chance.choice(tables)
        for _ in range(chance.randrange(1, 30)):
            key = chance.randrange(400)
            if chance.random() < 0.3:
                connection.execute('DELETE FROM "%s" WHERE id=?' % table, (key,))
            else:
                connection.execute('INSERT OR REPLACE INTO "%s"(id, name) VALUES(?, ?)' % table,
                                   (key, chance.choice(WORDS) + " ' \n" * chance.randrange(2)))
    return with_database(directory, chance, action)


def schema(directory, chance):
    def action(connection, tables):
        number = chance.randrange(1000)
        kind = chance.randrange(4)
        if kind == 0 or not tables:
            connection.execute('CREATE TABLE IF NOT EXISTS t%d(id INTEGER PRIMARY KEY, name TEXT)' % number)
        elif kind == 1:
            connection.execute('ALTER TABLE "%s" ADD COLUMN c%d TEXT' % (chance.choice(tables), number))
        elif kind == 2:
            connection.execute('CREATE INDEX IF NOT EXISTS i%d ON "%s"(name)' %
                               (number, chance.choice(tables)))
        elif len(tables) > 1:
            connection.execute('DROP TABLE "%s"' % chance.choice(tables))
        else:
            connection.execute("PRAGMA user_version = %d" % number)
    return with_database(directory, chance, action)


KINDS = {"new": add, "remove": remove, "rename": rename, "edit": edit, "empty": empty, "truncate": truncate,
         "grow": grow, "replace": replace, "permissions": permissions,
         "file to directory": file_to_directory, "directory to file": directory_to_file, "rows": rows,
         "schema": schema}
