"""Judges a recovered card against the card as the daemon left it (used by
real_card_recover_test.sh). A card is an image, read through the extents of
its files, or a folder given with a trailing '/'.

  frames TOOL IMAGE [ARGS...]   one line per frame of every section the card
                                tool lists: "FILE KIND OFFSET LENGTH TIME
                                SECTION" (ARGS go to search and frames)
  oncard FRAMES IMAGE TRUTH     the frames of FRAMES whose bytes IMAGE holds
                                as TRUTH does
  score TRUTH GOT [OTHER]       "recovered N of M": frames of TRUTH found in
                                GOT with the same bytes and time; exit 1 when
                                GOT lists a frame twice or one TRUTH lacks
                                (OTHER: frames GOT may list besides)
  records TRUTH IMAGE [--no-header]
                                the index records (header, file and section
                                records in use, key-frame entries) and the
                                event slots and lists, byte for byte; one
                                line per difference, exit 1 on any but those
                                in fields only the camera's configuration
                                gives (the header's configuration word, a
                                section's frame rate as configured, record
                                type and spare video byte), which no
                                recording carries exactly (the rate is
                                counted from frames written on time): those
                                are named "configuration" and counted
  index FILE IMAGE              the records of the index file FILE (header,
                                file records, sections in use) are IMAGE's
  digest IMAGE                  a digest of the image's data extents and
                                where they lie (a sparse image reads fast)
"""
import collections
import hashlib
import json
import os
import struct
import subprocess
import sys

MEDIA_KEYS = 0xFC00000
FILE_RECORDS = 0x400
FILE_RECORD = 48
SECTION_SLOT = 64
SECTION_BLOCK = 0x4000
SECTION_AREA = 0x20000
EVENT_SLOT = 256
EVENT_LISTS = 0x100000
EVENT_LIST = 0x20000
EVENT_ENTRY = 48
KEY_ENTRY = 20
HEADER = 236
# Bytes set from the camera's configuration, not from what it recorded.
HEADER_CONFIG = range(0x08, 0x0C)
SECTION_CONFIG = (0x28, 0x2A, 0x2C)
FILE_MAGIC = 0x46484652
EVENT_MAGIC = 0x464D4541


def extents(image):
    out = subprocess.run([sys.path[0] + '/../../scripts/fat-image', 'extents', image],
                         check=True, capture_output=True, text=True).stdout
    return {name: int(offset) for name, offset, _ in (line.split() for line in out.splitlines())}


class Card:
    """A card image, or a card folder (a path ending with '/')."""

    def __init__(self, path):
        self.path = path
        if not path.endswith('/'):
            self.where = extents(path)
            self.f = open(path, 'rb')

    def read(self, name, offset, size):
        if self.path.endswith('/'):
            with open(self.path + name, 'rb') as f:
                f.seek(offset)
                return f.read(size).ljust(size, b'\0')
        self.f.seek(self.where[name] + offset)
        return self.f.read(size)


def source(path):
    return ['--card', path] if path.endswith('/') else ['--image', path]


def frames(tool, image, args):
    listing = subprocess.run([tool, 'search', '--from', '0', '--to', '4294967295', '--json',
                              ] + source(image) + args, capture_output=True, text=True).stdout
    for line in listing.splitlines():
        name = json.loads(line)['name']
        out = subprocess.run([tool, 'frames', name, '--json'] + source(image) + args,
                             capture_output=True, text=True).stdout
        for frame in map(json.loads, out.splitlines()):
            print(name[2:8], frame['kind'], frame['offset'], frame['length'], frame.get('time', '-'), name)


def load(path):
    return [line.split() for line in open(path) if line.strip()]


def oncard(path, image, truth):
    got, want = Card(image), Card(truth)
    for row in load(path):
        name, offset, length = 'hi%s.mp4' % row[0], int(row[2]), int(row[3])
        if got.read(name, offset, length) == want.read(name, offset, length):
            print(' '.join(row))


def score(truth_path, got_path, other_path=None):
    key = lambda row: tuple(row[:5])
    truth = {key(row) for row in load(truth_path)}
    other = {key(row) for row in load(other_path)} if other_path else set()
    got = collections.Counter(key(row) for row in load(got_path))
    status = 0
    twice = [k for k, n in got.items() if n > 1]
    foreign = [k for k in got if k not in truth and k not in other]
    if twice:
        print('listed twice: %d frames, first %s' % (len(twice), ' '.join(twice[0])))
        status = 1
    if foreign:
        print('frames the card never recorded: %d, first %s' % (len(foreign), ' '.join(sorted(foreign)[0])))
        status = 1
    print('recovered %d of %d' % (len(truth & set(got)), len(truth)))
    return status


def records(truth_path, image_path, *options):
    want, got = Card(truth_path), Card(image_path)
    status = 0

    def same(what, name, offset, size, config=()):
        nonlocal status
        a, b = want.read(name, offset, size), got.read(name, offset, size)
        differ = [i for i in range(size) if a[i] != b[i]]
        if differ:
            kind = 'configuration' if all(i in config for i in differ) else 'record'
            status = status or kind == 'record'
            at = differ[0]
            print('%s %s differs at byte %d: %s, want %s' % (kind, what, at, b[at:at + 4].hex(), a[at:at + 4].hex()))

    if '--no-header' not in options:
        same('index header', 'index000.bin', 0, HEADER, HEADER_CONFIG)
    file_sum = struct.unpack_from('<I', want.read('index000.bin', 0x14, 4))[0]
    for n in range(file_sum):
        at = FILE_RECORDS + FILE_RECORD * n
        record = struct.unpack('<8I', want.read('index000.bin', at, 32))
        # A record without its magic is no record, whatever else it holds.
        if record[0] == FILE_MAGIC or got.read('index000.bin', at, 4) == struct.pack('<I', FILE_MAGIC):
            same('file record %d' % n, 'index000.bin', at, FILE_RECORD)
        if record[0] == FILE_MAGIC:
            block = SECTION_AREA + SECTION_BLOCK * n
            for s in range(1, record[6] + 1):
                same('section %d:%d' % (n, s), 'index000.bin', block + SECTION_SLOT * s, SECTION_SLOT, SECTION_CONFIG)
            same('key-frame table %d' % n, 'hi%06d.mp4' % n, MEDIA_KEYS, KEY_ENTRY * record[7])
        same('event slot %d' % n, 'event000.bin', EVENT_SLOT * n, EVENT_SLOT)
        slot = struct.unpack('<5I', want.read('event000.bin', EVENT_SLOT * n, 20))
        if slot[0] == EVENT_MAGIC:
            same('event list %d' % n, 'event000.bin', EVENT_LISTS + EVENT_LIST * n, EVENT_ENTRY * slot[4])
    return status


def index(path, image):
    got, want = open(path, 'rb').read(SECTION_AREA + SECTION_BLOCK * 2048), Card(image)

    def region(offset, size):
        return got[offset:offset + size], want.read('index000.bin', offset, size)

    a, b = region(0, FILE_RECORDS + FILE_RECORD * 2048)
    status = int(a[:HEADER] != b[:HEADER])
    file_sum = struct.unpack_from('<I', b, 0x14)[0]
    for n in range(file_sum):
        record = b[FILE_RECORDS + FILE_RECORD * n:FILE_RECORDS + FILE_RECORD * (n + 1)]
        status |= a[FILE_RECORDS + FILE_RECORD * n:FILE_RECORDS + FILE_RECORD * (n + 1)] != record
        if struct.unpack_from('<I', record)[0] == FILE_MAGIC:
            used = struct.unpack_from('<I', record, 0x18)[0]
            x, y = region(SECTION_AREA + SECTION_BLOCK * n + SECTION_SLOT, SECTION_SLOT * used)
            status |= x != y
    if status:
        print('the index file and the image differ')
    return status


def digest(image):
    h = hashlib.sha256()
    with open(image, 'rb') as f:
        at, end = 0, os.fstat(f.fileno()).st_size
        while at < end:
            try:
                at = os.lseek(f.fileno(), at, os.SEEK_DATA)
            except OSError:
                break
            stop = os.lseek(f.fileno(), at, os.SEEK_HOLE)
            h.update(b'%d:' % at)
            f.seek(at)
            while at < stop:
                chunk = f.read(min(1 << 20, stop - at))
                h.update(chunk)
                at += len(chunk)
    print(h.hexdigest())


if __name__ == '__main__':
    command, args = sys.argv[1], sys.argv[2:]
    if command == 'frames':
        frames(args[0], args[1], args[2:])
    elif command == 'oncard':
        oncard(*args)
    elif command == 'score':
        sys.exit(score(*args))
    elif command == 'records':
        sys.exit(records(*args))
    elif command == 'index':
        sys.exit(index(*args))
    elif command == 'digest':
        digest(*args)
    else:
        sys.exit(__doc__)
