"""Writes a small HFS Plus volume: Debian has no tool that makes one."""

import struct

BLOCK_SIZE = 4096
NODE_SIZE = 4096

ROOT_PARENT_ID = 1
ROOT_FOLDER_ID = 2
EXTENTS_FILE_ID = 3
CATALOG_FILE_ID = 4
ALLOCATION_FILE_ID = 6
FIRST_USER_ID = 16

FOLDER_RECORD = 1
FILE_RECORD = 2
FOLDER_THREAD_RECORD = 3
FILE_THREAD_RECORD = 4

LEAF_NODE = -1
HEADER_NODE = 1

VOLUME_UNMOUNTED = 1 << 8
THREAD_EXISTS = 1 << 1
BIG_KEYS = 1 << 1
VARIABLE_INDEX_KEYS = 1 << 2
CASE_FOLDING = 0xCF

# Seconds since 1904, like all times of the format. Any fixed time works.
CREATED = 3_786_825_600

CATALOG_NODES = 32
EXTENTS_NODES = 4


def write_volume(path, megabytes, label, files=None, identifier=0x0123456789ABCDEF):
    """Writes a volume with the given label and files ({name: bytes}, in its root folder) to the file `path`.

    `identifier` is the volume's unique identifier in its Finder information.
    """
    files = files or {}
    total_blocks = megabytes * 1024 * 1024 // BLOCK_SIZE
    if total_blocks > BLOCK_SIZE * 8:
        raise ValueError("one bitmap block holds at most 128 MiB")

    # Block 0 holds the volume header, the last block its copy.
    allocation = (1, 1)
    extents = (2, EXTENTS_NODES)
    catalog = (extents[0] + extents[1], CATALOG_NODES)
    next_block = catalog[0] + catalog[1]
    placed = {}
    for name, content in files.items():
        blocks = -(-len(content) // BLOCK_SIZE)
        placed[name] = (next_block, blocks)
        next_block += blocks
    if next_block >= total_blocks:
        raise ValueError("the files do not fit")

    bitmap = bytearray(BLOCK_SIZE)
    for block in [*range(next_block), total_blocks - 1]:
        bitmap[block // 8] |= 0x80 >> (block % 8)

    # fmt: off
    header = struct.pack(
        ">HHIIIIIIIIIIIIIIIIIQ",
        0x482B, 4, VOLUME_UNMOUNTED, int.from_bytes(b"10.0", "big"), 0,
        CREATED, CREATED, 0, CREATED,
        len(files), 0,
        BLOCK_SIZE, total_blocks, total_blocks - next_block - 1,
        next_block, BLOCK_SIZE, BLOCK_SIZE, FIRST_USER_ID + len(files), 1,
        1)  # Text encodings in use: MacRoman.
    # fmt: on
    header += struct.pack(">6IQ", 0, 0, 0, 0, 0, 0, identifier)
    header += _fork(*allocation, BLOCK_SIZE)
    header += _fork(*extents, extents[1] * BLOCK_SIZE)
    header += _fork(*catalog, catalog[1] * BLOCK_SIZE)
    header += _fork(0, 0, 0)  # Attributes.
    header += _fork(0, 0, 0)  # Startup.

    with open(path, "wb") as volume:
        volume.truncate(total_blocks * BLOCK_SIZE)
        _write_at(volume, 1024, header)
        _write_at(volume, total_blocks * BLOCK_SIZE - 1024, header)
        _write_at(volume, allocation[0] * BLOCK_SIZE, bitmap)
        _write_at(volume, extents[0] * BLOCK_SIZE, _tree([], EXTENTS_NODES, 10, BIG_KEYS, 0))
        _write_at(
            volume,
            catalog[0] * BLOCK_SIZE,
            _tree(
                _catalog_records(label, files, placed),
                CATALOG_NODES,
                516,
                BIG_KEYS | VARIABLE_INDEX_KEYS,
                CASE_FOLDING,
            ),
        )
        for name, content in files.items():
            _write_at(volume, placed[name][0] * BLOCK_SIZE, content)


def _catalog_records(label, files, placed):
    records = [
        (ROOT_PARENT_ID, label, _folder(ROOT_FOLDER_ID, len(files))),
        (ROOT_FOLDER_ID, "", _thread(FOLDER_THREAD_RECORD, ROOT_PARENT_ID, label)),
    ]
    # Names compare case-insensitively.
    for number, name in enumerate(sorted(files, key=str.lower)):
        identifier = FIRST_USER_ID + number
        first, blocks = placed[name]
        records.append((ROOT_FOLDER_ID, name, _file(identifier, first, blocks, len(files[name]))))
        records.append((identifier, "", _thread(FILE_THREAD_RECORD, ROOT_FOLDER_ID, name)))
    records.sort(key=lambda record: (record[0], record[1].lower()))
    return [_key(parent, name) + data for parent, name, data in records]


def _text(name):
    encoded = name.encode("utf-16-be")
    return struct.pack(">H", len(encoded) // 2) + encoded


def _key(parent, name):
    key = struct.pack(">I", parent) + _text(name)
    return struct.pack(">H", len(key)) + key


def _permissions(mode):
    return struct.pack(">IIBBHI", 0, 0, 0, 0, mode, 1)


def _folder(identifier, entries):
    record = struct.pack(
        ">hHIIIIIII", FOLDER_RECORD, 0, entries, identifier, CREATED, CREATED, CREATED, CREATED, 0
    )
    return record + _permissions(0o040755) + bytes(32) + struct.pack(">II", 0, 0)


def _file(identifier, first, blocks, size):
    record = struct.pack(
        ">hHIIIIIII", FILE_RECORD, THREAD_EXISTS, 0, identifier, CREATED, CREATED, CREATED, CREATED, 0
    )
    record += _permissions(0o100644) + bytes(32) + struct.pack(">II", 0, 0)
    return record + _fork(first, blocks, size) + _fork(0, 0, 0)


def _thread(kind, parent, name):
    return struct.pack(">hhI", kind, 0, parent) + _text(name)


def _fork(first, blocks, size):
    return struct.pack(">QII", size, 0, blocks) + struct.pack(">II", first, blocks) + bytes(7 * 8)


def _tree(records, nodes, max_key_length, attributes, key_compare):
    """Returns a B-tree file: a header node and, for any records, one leaf."""
    leaves = 1 if records else 0
    used = 1 + leaves
    # fmt: off
    header = struct.pack(">HIIIIHHIIHIBBI", leaves, leaves, len(records), leaves, leaves, NODE_SIZE,
                         max_key_length, nodes, nodes - used, 0, NODE_SIZE, 0, key_compare, attributes)
    # fmt: on
    header += bytes(64)
    bitmap = bytearray(NODE_SIZE - 256)
    bitmap[0] = 0xC0 if leaves else 0x80
    tree = _node(HEADER_NODE, 0, [header, bytes(128), bytes(bitmap)])
    if records:
        tree += _node(LEAF_NODE, 1, records)
    return tree


def _node(kind, height, records):
    node = struct.pack(">IIbBHH", 0, 0, kind, height, len(records), 0)
    offsets = []
    for record in records:
        offsets.append(len(node))
        node += record + bytes(len(record) % 2)
    offsets.append(len(node))
    table = b"".join(struct.pack(">H", offset) for offset in reversed(offsets))
    if len(node) + len(table) > NODE_SIZE:
        raise ValueError("too many files for one catalog node")
    return node + bytes(NODE_SIZE - len(node) - len(table)) + table


def _write_at(volume, offset, data):
    volume.seek(offset)
    volume.write(data)
