"""Counts the branches that need no exception. GCC adds others, which destroy objects
after an exception; gcovr excludes only those that lead there from executed code.

The files NAME.gcno of GCC 12 contain the blocks of each function, the arcs between
them, and the lines of each block, as records of 32-bit words in the machine's order.
"""

import collections
import pathlib
import struct

MAGIC = b"oncg*22B"  # "gcno", and the version "B22*"
FUNCTION, ARCS, LINES = 0x01000000, 0x01430000, 0x01450000
FAKE, FALL_THROUGH = 2, 4  # flags of an arc


class Function:
    def __init__(self):
        self.arcs = collections.defaultdict(list)  # (target, flags) by block
        self.lines = collections.defaultdict(list)  # (file, line) by block

    def is_call(self, block):
        return any(flags & FAKE for _, flags in self.arcs[block])

    def normal_blocks(self):
        """The blocks that are reached without an exception."""
        reached, waiting = {0}, [0]
        while waiting:
            block = waiting.pop()
            may_throw = self.is_call(block)
            for target, flags in list(self.arcs[block]):
                is_exception = may_throw and not flags & FALL_THROUGH
                if not flags & FAKE and not is_exception and target not in reached:
                    reached.add(target)
                    waiting.append(target)
        return reached

    def normal_branches(self):
        """The number of such branches by (file, line). The lines of a handler, which
        only an exception reaches, have all of theirs."""
        normal = self.normal_blocks()
        normal_lines = {
            line for block in normal for line in self.lines.get(block, ())}
        counts = collections.Counter()
        for block, lines in self.lines.items():
            arcs = [flags for _, flags in self.arcs[block] if not flags & FAKE]
            is_clean_up = block not in normal and lines[-1] in normal_lines
            if is_clean_up or len(arcs) < 2:
                continue
            if self.is_call(block):
                arcs = [flags for flags in arcs if flags & FALL_THROUGH]
            counts[lines[-1]] += len(arcs)
        return counts


def text_at(data, position):
    """A text and the position after it."""
    (size,) = struct.unpack_from("=I", data, position)
    begin = position + 4
    return data[begin:begin + size].split(b"\0")[0].decode(), begin + size


def lines_in(data, position, end):
    """The lines of one record."""
    lines, name = [], None
    while position < end:
        (number,) = struct.unpack_from("=I", data, position)
        position += 4
        if number != 0:
            lines.append((name, number))
        elif struct.unpack_from("=I", data, position)[0] == 0:
            break
        else:
            name, position = text_at(data, position)
    return lines


def functions_in(path):
    """The directory of the compilation and the functions of a .gcno file."""
    data = path.read_bytes()
    if data[:8] != MAGIC:
        raise SystemExit(f"{path} is not of GCC 12")
    directory, position = text_at(data, 16)
    position += 4
    functions = []
    while position + 8 <= len(data):
        tag, size = struct.unpack_from("=II", data, position)
        position += 8
        end = position + size
        if tag == FUNCTION:
            functions.append(Function())
        elif tag == ARCS:
            words = struct.unpack_from(f"={size // 4}I", data, position)
            functions[-1].arcs[words[0]] += zip(words[1::2], words[2::2])
        elif tag == LINES:
            (block,) = struct.unpack_from("=I", data, position)
            lines = lines_in(data, position + 4, end)
            if lines:
                functions[-1].lines[block] += lines
        position = end
    return directory, functions


def normal_branches(build):
    """The number of branches by (absolute path, line) of a build directory. Of several
    compilations of a header, the largest number."""
    largest = collections.Counter()
    for path in pathlib.Path(build).rglob("*.gcno"):
        directory, functions = functions_in(path)
        counts = collections.Counter()
        for function in functions:
            counts.update(function.normal_branches())
        for (name, line), count in counts.items():
            place = str(pathlib.Path(directory, name).resolve()), line
            largest[place] = max(largest[place], count)
    return largest
