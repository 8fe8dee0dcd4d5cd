#!/usr/bin/env python3
"""FAT32 card images for the reliability loops, read without mounting them.

  fat_image.py metadata IMG       sha256 of the reserved sectors, both FATs and
                                  the root directory's clusters
  fat_image.py place IMG DIR      writes each file of DIR into the clusters of
                                  the image's file of the same name (which must
                                  be one contiguous run of the same size); only
                                  the data extents of sparse files are copied

Exits 1 with one line on stderr when the image or a file does not fit.
"""
import hashlib
import os
import struct
import sys

DIR_ENTRY = 32
ATTR_LONG_NAME = 0x0F
ATTR_VOLUME_ID = 0x08
ENTRY_FREE = 0xE5
END_OF_CHAIN = 0x0FFFFFF8
CLUSTER_MASK = 0x0FFFFFFF
COPY_CHUNK = 1 << 20


class Image:
    def __init__(self, path, mode='rb'):
        self.f = open(path, mode)
        boot = self.f.read(512)
        if boot[510:512] != b'\x55\xaa':
            sys.exit('%s: no boot sector signature' % path)
        (self.sector,) = struct.unpack_from('<H', boot, 11)
        self.per_cluster = boot[13]
        (self.reserved,) = struct.unpack_from('<H', boot, 14)
        self.fats = boot[16]
        (self.fat_sectors, _, _, self.root) = struct.unpack_from('<IHHI', boot, 36)
        if self.sector == 0 or self.per_cluster == 0 or self.fat_sectors == 0:
            sys.exit('%s: not a FAT32 boot sector' % path)
        self.f.seek(self.reserved * self.sector)
        self.fat = self.f.read(self.fat_sectors * self.sector)
        self.data = (self.reserved + self.fats * self.fat_sectors) * self.sector

    def next_cluster(self, cluster):
        (value,) = struct.unpack_from('<I', self.fat, 4 * cluster)
        return value & CLUSTER_MASK

    def chain(self, first):
        clusters = []
        cluster = first
        while 2 <= cluster < END_OF_CHAIN and len(clusters) * 4 < len(self.fat):
            clusters.append(cluster)
            cluster = self.next_cluster(cluster)
        return clusters

    def cluster_offset(self, cluster):
        return self.data + (cluster - 2) * self.per_cluster * self.sector

    def cluster_bytes(self):
        return self.per_cluster * self.sector

    def root_entries(self):
        """(name, first cluster, size) of the root directory's files."""
        for cluster in self.chain(self.root):
            self.f.seek(self.cluster_offset(cluster))
            block = self.f.read(self.cluster_bytes())
            for at in range(0, len(block), DIR_ENTRY):
                entry = block[at:at + DIR_ENTRY]
                if entry[0] == 0:
                    return
                if entry[0] == ENTRY_FREE or entry[11] == ATTR_LONG_NAME or entry[11] & ATTR_VOLUME_ID:
                    continue
                base = entry[0:8].decode('ascii').rstrip().lower()
                ext = entry[8:11].decode('ascii').rstrip().lower()
                hi, lo, size = struct.unpack_from('<H4xHI', entry, 20)
                yield (base + '.' + ext if ext else base), (hi << 16) | lo, size

    def metadata_digest(self):
        digest = hashlib.sha256()
        self.f.seek(0)
        digest.update(self.f.read(self.data))
        for cluster in self.chain(self.root):
            self.f.seek(self.cluster_offset(cluster))
            digest.update(self.f.read(self.cluster_bytes()))
        return digest.hexdigest()


def data_extents(fd, size):
    """(offset, length) of the parts of a sparse file that hold data."""
    offset = 0
    while offset < size:
        try:
            start = os.lseek(fd, offset, os.SEEK_DATA)
        except OSError:
            return
        end = os.lseek(fd, start, os.SEEK_HOLE)
        yield start, end - start
        offset = end


def place(image_path, folder):
    image = Image(image_path, 'r+b')
    placed = 0
    for name, first, size in image.root_entries():
        path = os.path.join(folder, name)
        if not os.path.exists(path):
            continue
        if os.path.getsize(path) != size:
            sys.exit('%s: %d bytes, %d in the image' % (name, os.path.getsize(path), size))
        clusters = image.chain(first)
        needed = -(-size // image.cluster_bytes())
        if len(clusters) != needed or clusters != list(range(first, first + needed)):
            sys.exit('%s: not one contiguous run of %d clusters in the image' % (name, needed))
        base = image.cluster_offset(first)
        fd = os.open(path, os.O_RDONLY)
        for start, length in data_extents(fd, size):
            for at in range(start, start + length, COPY_CHUNK):
                chunk = os.pread(fd, min(COPY_CHUNK, start + length - at), at)
                image.f.seek(base + at)
                image.f.write(chunk)
        os.close(fd)
        placed += 1
    print('%d files placed' % placed)


def main(argv):
    if len(argv) == 3 and argv[1] == 'metadata':
        print(Image(argv[2]).metadata_digest())
    elif len(argv) == 4 and argv[1] == 'place':
        place(argv[2], argv[3])
    else:
        sys.exit(__doc__.strip())


if __name__ == '__main__':
    main(sys.argv)
