#!/usr/bin/env python3
"""Writes the damaged table files of this folder from ../quotes and
../quotes.gz, and manifest.tsv with the outcome each must have:

  exception TEXT   the load throws Exception with this message
  rows N           the load gives exactly N rows and no error
  rows-at-most N   the load gives at most N rows (and may report an error)
  error TEXT       the load reports an error containing TEXT (errorString)
  any              a documented outcome: an Exception, or rows, never a crash

The header of ../quotes: column count (2 bytes), four column records, then
row count, row length and record length (4 bytes each) at offsets 162, 166
and 170, then three records of 37 bytes from 174. The length of the first
column ("ticker", String 6) is at offset 38.
"""
import gzip
import struct
import zlib

plain = open('../quotes', 'rb').read()
packed = open('../quotes.gz', 'rb').read()
manifest = []


def put(name, data, outcome):
    open(name, 'wb').write(data)
    manifest.append(f'{name}\t{outcome}')


def patched(offset, value):
    return plain[:offset] + struct.pack('>i', value) + plain[offset + 4:]


ROWS, RECORD, LENGTH = 162, 170, 38
assert struct.unpack('>i', plain[ROWS:ROWS + 4])[0] == 3
assert struct.unpack('>i', plain[RECORD:RECORD + 4])[0] == 37
assert struct.unpack('>i', plain[LENGTH:LENGTH + 4])[0] == 6

put('string-length-negative', patched(LENGTH, -1),
    "exception Column 'ticker' of table 'saved' can't hold a string of length -1.")
put('string-length-zero', patched(LENGTH, 0), 'exception Length of string can\'t be zero')
put('string-length-huge', patched(LENGTH, 1500000000),
    "exception Column 'ticker' of table 'saved' can't hold a string of length 1500000000.")
put('row-count-negative', patched(ROWS, -5), 'rows 0')
put('row-count-huge', patched(ROWS, 2**31 - 1), f'rows-at-most {3 + 65536}')
put('record-length-short', patched(RECORD, 10), 'rows 3')
# Records far shorter than a stored layout as wide as a read chunk: the
# column after the string starts where the chunk of 7084 records of 37 bytes
# ends, for the third record (256 KiB reads).
put('string-length-wide', patched(LENGTH, 131016), 'rows 3')
put('record-length-long', patched(RECORD, 100), 'rows 3')
put('record-length-negative', patched(RECORD, -7), 'rows 3')
for cut in (1, 2, 6, 20, 38, 60, 100, 162, 164, 168, 172, 174, 190, len(plain) - 1):
    put(f'cut-{cut:03d}', plain[:cut], 'any')
for flip in (1, 5, 24, 40, 45, 120, 162, 171, 180):
    data = bytearray(plain)
    data[flip] ^= 0xA5
    put(f'flip-{flip:03d}', bytes(data), 'any')

put('cut.gz', packed[:-10], 'error cut short')
data = bytearray(packed)
data[len(data) // 2] ^= 0x55
put('corrupt.gz', bytes(data), 'error zlib')
put('header-only.gz', packed[:12], 'error cut short')
# A table stored as two gzip members, as cat of two files makes.
put('two-members.gz', gzip.compress(plain[:100], mtime=0) + gzip.compress(plain[100:], mtime=0), 'rows 3')

open('manifest.tsv', 'w').write('\n'.join(manifest) + '\n')
