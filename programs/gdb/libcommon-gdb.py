# SPDX-License-Identifier: Apache-2.0
"""gdb's view of libcommon: pretty printers for the public records, and the commands `qv caches`, `qv heap`,
`qv leaks` and `qv timers`.

gdb loads this file by itself with libcommon.so.1 when it is installed in the auto-load folder; otherwise `source` it.
Everything here reads memory and calls nothing in the process, so it serves live processes and cores alike, those of
another machine too: numbers are read in the byte order of the process, not of the machine that gdb runs on.

Printers need the types of the public headers, which the debug information of the host has. The commands need nothing but
the library's dynamic symbols: where no debug information describes a record, it is read by the layout of its header.
What a broken process holds is not trusted: walks are bounded, and memory that cannot be read ends them with a note.
"""

import struct
import time

import gdb
import gdb.printing

MOST_WALKED = 1_000_000  # elements of one walk; a damaged list may lead round in circles
MOST_LOG_SIZE = 31  # of a table of buckets


# ---- memory ----


def address_of(pointer):
    return int(pointer.cast(gdb.lookup_type("unsigned long")))


def read_bytes(address, size):
    """gdb.MemoryError where nothing is mapped."""
    return bytes(gdb.selected_inferior().read_memory(address, size))


def byte_order():
    """Of the process, as struct writes it."""
    return ">" if "big" in gdb.execute("show endian", to_string=True) else "<"


def unpack(form, address):
    """The numbers at an address; the form is one of struct without its order."""
    form = byte_order() + form
    return struct.unpack(form, read_bytes(address, struct.calcsize(form)))


def read_number(address, size):
    return unpack({1: "B", 4: "I", 8: "Q"}[size], address)[0]


def read_pointer(address):
    return read_number(address, 8)


def read_text(address, size):
    """Fit for a terminal."""
    text = read_bytes(address, size).split(b"\0")[0].decode("utf-8", "replace")
    return "".join(c if c.isprintable() else "?" for c in text)


def symbol_at(address):
    """The function at an address as gdb names it; the address where it has no name."""
    text = gdb.execute(f"info symbol {address:#x}", to_string=True).strip()
    return f"{address:#x}" if text.startswith("No symbol") else text.split(" in section")[0]


def is_core():
    connection = gdb.selected_inferior().connection
    return connection is not None and connection.type == "core"


def variable_address(name):
    """The address of an exported variable, by its symbol alone; an error that says what is missing."""
    try:
        return int(gdb.parse_and_eval(f"(unsigned long)&'{name}'"))
    except gdb.error as error:
        raise gdb.GdbError(f"No symbol {name}: is libcommon.so.1 loaded?") from error


def bounded(items):
    """The items up to the limit, or up to memory that cannot be read."""
    try:
        for count, item in enumerate(items):
            if count == MOST_WALKED:
                return
            yield item
    except gdb.MemoryError:
        return


def chain(first, next_of):
    while address_of(first) != 0:
        yield first
        first = next_of(first)


def buckets_of(table):
    count = 1 << min(int(table["log_size"]), MOST_LOG_SIZE)
    return (table["buckets"][i] for i in range(count))


# ---- printers ----


class ListPrinter:
    """A record shown as a summary and an array of its elements."""

    def __init__(self, value):
        self.value = value

    def children(self):
        for number, element in enumerate(bounded(self.elements())):
            yield f"[{number}]", element

    @staticmethod
    def display_hint():
        return "array"


class HashTable(ListPrinter):
    """Objects are shown by their addresses: the table does not know their type."""

    def to_string(self):
        return f"hashtbl of {int(self.value['count'])} objects in {1 << int(self.value['log_size'])} buckets"

    def elements(self):
        offset = int(self.value["link_offset"])
        void_pointer = gdb.lookup_type("void").pointer()
        for head in buckets_of(self.value):
            for link in chain(head, lambda link: link["next"]):
                yield gdb.Value(address_of(link) - offset).cast(void_pointer)


class Tree(ListPrinter):
    """Nodes in order. A stack of the ancestors bounds the walk also where parents are damaged."""

    def to_string(self):
        return "rb_root, empty" if address_of(self.value["node"]) == 0 else "rb_root"

    def elements(self):
        ancestors, node = [], self.value["node"]
        while ancestors or address_of(node) != 0:
            if len(ancestors) > 128:  # deeper than any balanced tree
                return
            if address_of(node) != 0:
                ancestors.append(node)
                node = node["left"]
                continue
            node = ancestors.pop()
            yield node
            node = node["right"]


def runs(numbers):
    """Numbers in rising order as text, with runs as first-last."""
    first = last = None
    for number in numbers:
        if last is not None and number == last + 1:
            last = number
            continue
        if first is not None:
            yield str(first) if first == last else f"{first}-{last}"
        first = last = number
    if first is not None:
        yield str(first) if first == last else f"{first}-{last}"


class Pool(ListPrinter):
    """The identifiers in use, runs of them together."""

    def ids(self):
        least, most = int(self.value["min_id"]), int(self.value["max_id"])
        for word in range((most - least) // 32 + 1 if 0 <= least <= most else 0):
            bits = int(self.value["bitmap"][word])
            for bit in range(32 if bits != 0 else 0):
                number = least + word * 32 + bit
                if bits >> bit & 1 and number <= most:
                    yield number

    def elements(self):
        return runs(bounded(self.ids()))

    def to_string(self):
        used = sum(1 for _ in bounded(self.ids()))
        name = self.value["name"].string(errors="replace")
        total = int(self.value["max_id"]) - int(self.value["min_id"]) + 1
        return f"idpool \"{name}\": {used} of {total} in use, {int(self.value['min_id'])} to {int(self.value['max_id'])}"


class IdNode(ListPrinter):
    """The slots in use. A node does not know its level, so that they are not followed."""

    def to_string(self):
        return f"idtable_node: {int(self.value['count'])} of {int(self.value['size'])} slots in use"

    def children(self):
        start = address_of(self.value["slots"].address)
        void_pointer = gdb.lookup_type("void").pointer()

        def used():
            for slot in range(int(self.value["size"])):
                content = read_pointer(start + 8 * slot)
                if content != 0:
                    yield f"[{slot}]", gdb.Value(content).cast(void_pointer)

        return bounded(used())


class NameTable:
    """The names with their identifiers, in the order of insertion."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        if address_of(self.value["hashtbl"]) == 0:
            return "name2id_tbl without an index"
        return f"name2id_tbl of {int(self.value['hashtbl'].dereference()['count'])} names"

    def children(self):
        for number, entry in enumerate(bounded(chain(self.value["first"], lambda entry: entry["next"]))):
            yield f"name{number}", entry["name"].string(errors="replace")
            yield f"id{number}", entry["id"]

    @staticmethod
    def display_hint():
        return "map"


class SimpleTable(ListPrinter):
    def to_string(self):
        count = sum(1 for _ in bounded(self.elements()))
        return f"simphash of {count} values in {1 << min(int(self.value['log_size']), MOST_LOG_SIZE)} buckets"

    def elements(self):
        for head in buckets_of(self.value):
            for entry in chain(head, lambda entry: entry["next"]):
                yield entry["value"]


class DatabaseIndex(ListPrinter):
    def to_string(self):
        count = sum(1 for _ in bounded(self.elements()))
        return f"database_index of {count} records, hashed by {symbol_at(address_of(self.value['hash_fn']))}"

    def elements(self):
        for bucket in buckets_of(self.value):
            for node in chain(bucket["first"], lambda node: node["next"]):
                yield node["record"]


class Database(ListPrinter):
    def to_string(self):
        return f"database of {sum(1 for _ in bounded(self.elements()))} indexes"

    def elements(self):
        for index in chain(self.value["indexes"], lambda index: index["next_index"]):
            yield index.dereference()


class Cache:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        name = self.value["name"].string(errors="replace")
        return (f"mcache \"{name}\": {int(self.value['in_use'])} objects of {int(self.value['obj_size'])} bytes "
                f"in {int(self.value['page_count'])} pages")


def seconds(time):
    return f"{int(time['tv_sec'])}.{int(time['tv_usec']):06} s"


class SortedTimer:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        state = f"expires at {seconds(self.value['expire'])}" if int(self.value["index"]) != 0 else "stopped"
        return (f"stimer of {seconds(self.value['interval'])}, {state}: "
                f"{symbol_at(address_of(self.value['callback']))}({address_of(self.value['arg']):#x})")


class WheelTimer:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        state = "running" if address_of(self.value["bucket"]) != 0 else "stopped"
        return (f"atimer of {int(self.value['expire'])} ticks, {state}: "
                f"{symbol_at(address_of(self.value['callback']))}({address_of(self.value['arg']):#x})")


class Wheel(ListPrinter):
    """The timers that wait, level by level."""

    def to_string(self):
        count = sum(1 for _ in bounded(self.elements()))
        return f"atimer_context at tick {int(self.value['tick'])}, {int(self.value['nlevels'])} levels, {count} timers"

    def elements(self):
        if address_of(self.value["levels"]) == 0:
            return
        for level in range(max(0, min(int(self.value["nlevels"]), 30))):
            wheel = self.value["levels"][level]
            for bucket in range(max(0, int(wheel["size"]))):
                for timer in chain(wheel["buckets"][bucket]["first"], lambda timer: timer["next"]):
                    yield timer.dereference()


PRINTERS = {
    "hashtbl": HashTable,
    "rb_root": Tree,
    "idpool": Pool,
    "idtable_node": IdNode,
    "name2id_tbl": NameTable,
    "simphash": SimpleTable,
    "database": Database,
    "database_index": DatabaseIndex,
    "mcache": Cache,
    "stimer": SortedTimer,
    "atimer": WheelTimer,
    "atimer_context": Wheel,
}


def make_printers():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("libcommon")
    for name, printer in PRINTERS.items():
        printers.add_printer(name, f"^{name}$", printer)
    return printers


# ---- commands ----


class Qv(gdb.Command):
    """What libcommon keeps in this process: qv caches, qv heap, qv leaks [SECONDS], qv timers CONTEXT."""

    def __init__(self):
        super().__init__("qv", gdb.COMMAND_DATA, prefix=True)


class QvCaches(gdb.Command):
    """qv caches -- the object caches, the newest first, with the objects in use.

    Reads the public record of mcache.h by its layout; no debug information is needed."""

    PAGE_UNIT = 8192
    NEXT, NAME, NAME_SIZE, NUMBERS = 8, 48, 64, 112

    def __init__(self):
        super().__init__("qv caches", gdb.COMMAND_DATA)

    def records(self):
        cache = read_pointer(variable_address("zlist"))
        while cache != 0:
            yield cache
            cache = read_pointer(cache + self.NEXT)

    def invoke(self, _argument, _from_tty):
        print(f"{'cache':32} {'size':>8} {'in use':>10} {'pages':>8} {'bytes held':>12}")
        for cache in bounded(self.records()):
            name = read_text(cache + self.NAME, self.NAME_SIZE)
            pages, _flags, in_use, size, _slot, units, _per_slab, _id = unpack("8I", cache + self.NUMBERS)
            print(f"{name:32} {size:8} {in_use:10} {pages:8} {pages * units * self.PAGE_UNIT:12}")


class Inspection:
    """The record of libcommon_inspect.h, which says where the statistics lie. Version 1 of its layout."""

    MAGIC, VERSION = 0x3154434550534E49, 1
    HEAD, LIGHT, TRACING = "QII16s", "4Q12I", "2Q16I"
    CLASS_FIELDS = ("allocs", "frees", "releases", "products", "failures", "taken", "returned")
    # Limits for a damaged record. The library has 65,536 records of blocks and 32 classes.
    MOST_RECORDS = 1 << 20
    MOST_CLASSES, MOST_TABLE_SIZE = 64, 1 << 16
    MOST_SHARDS = 4096

    def __init__(self):
        address = variable_address("qv_inspect")
        magic, version, _size, _library = unpack(self.HEAD, address)
        if magic != self.MAGIC or version != self.VERSION:
            raise gdb.GdbError(f"qv_inspect has version {version}; these commands know {self.VERSION}")
        light_at = address + struct.calcsize("=" + self.HEAD)
        self.light = unpack(self.LIGHT, light_at)
        self.tracing = unpack(self.TRACING, light_at + struct.calcsize("=" + self.LIGHT))

    def tables(self):
        """The counters of all shards, summed word by word modulo 2^32 since the last clear."""
        shards, common, cleared, is_on, count, shard_size, classes, class_size = self.light[:8]
        if read_number(is_on, 1) == 0:
            raise gdb.GdbError("The process has another allocator: nothing is counted.")
        form = f"{min(classes * class_size, self.MOST_TABLE_SIZE) // 4}I"
        addresses = [shards + i * shard_size for i in range(min(count, self.MOST_SHARDS))] + [common]
        sums = [sum(words) for words in zip(*(unpack(form, address) for address in addresses))]
        return [total - before & 0xFFFFFFFF for total, before in zip(sums, unpack(form, cleared))]

    def size_classes(self):
        """For each size class its smallest size, blocks, bytes and counters."""
        words, class_size = self.tables(), self.light[7]
        for number in range(min(self.light[6], self.MOST_CLASSES)):
            row = {name: words[(number * class_size + at) // 4] for name, at in zip(self.CLASS_FIELDS, self.light[8:])}
            blocks = row["allocs"] + row["products"] - row["frees"] - row["releases"] & 0xFFFFFFFF
            if blocks >> 31:  # stopped between the counts of a free and of its allocation
                blocks = 0
            smallest = 1 << number if number else 0
            # Bytes are counted in 32 bits; the number of blocks supplies the rest.
            least, most = blocks * smallest, blocks * ((2 << number) - 1)
            held = least + (row["taken"] - row["returned"] - least & 0xFFFFFFFF)
            yield smallest, blocks, held if held <= most else least, row

    def blocks(self):
        """(bytes, time, chain) of each block in the table of full tracing."""
        state, _wait, table_at, *_counters, count, size, block_at, bytes_at, time_at, chain_at, length, _ = self.tracing
        table = read_pointer(state + table_at)
        if table == 0:
            raise gdb.GdbError("There is no table: full tracing was never started (qv_mtrace_start()).")
        memory = read_bytes(table, min(count, self.MOST_RECORDS) * size)
        order = byte_order()
        for at in range(0, len(memory), size):
            if struct.unpack_from(order + "Q", memory, at + block_at)[0] == 0:
                continue
            chain = struct.unpack_from(f"{order}{length}Q", memory, at + chain_at)
            depth = chain.index(0) if 0 in chain else length
            yield struct.unpack_from(order + "I", memory, at + bytes_at)[0], \
                struct.unpack_from(order + "Q", memory, at + time_at)[0], chain[:depth]

    def time_wait(self):
        return read_number(self.tracing[1], 8)


class QvHeap(gdb.Command):
    """qv heap -- the light statistics of the heap by size class: what is held, and the calls since the start."""

    def __init__(self):
        super().__init__("qv heap", gdb.COMMAND_DATA)

    def invoke(self, _argument, _from_tty):
        print(f"{'from size':>10} {'blocks':>10} {'bytes':>12} {'allocs':>10} {'frees':>10} {'failures':>10}")
        held = count = 0
        all_bytes = all_blocks = 0
        for smallest, blocks, held, row in Inspection().size_classes():
            if not any(row.values()):
                continue
            all_bytes, all_blocks = all_bytes + held, all_blocks + blocks
            print(f"{smallest:10} {blocks:10} {held:12} {row['allocs']:10} {row['frees']:10} {row['failures']:10}")
        print(f"{'all':>10} {all_blocks:10} {all_bytes:12}")


class QvLeaks(gdb.Command):
    """qv leaks [SECONDS] -- blocks that full tracing recorded at least SECONDS ago, by call chain, the largest first.

    Without SECONDS the process's time_wait counts. In a core the ages are those at the youngest block."""

    MOST_GROUPS = 32

    def __init__(self):
        super().__init__("qv leaks", gdb.COMMAND_DATA)

    def invoke(self, argument, _from_tty):
        record = Inspection()
        least = int(argument) if argument else record.time_wait()
        blocks = list(record.blocks())
        now = max((when for _size, when, _chain in blocks), default=0) if is_core() else time.time()
        groups = {}
        for size, when, chain in blocks:
            if now - when >= least:
                total, count = groups.get(chain, (0, 0))
                groups[chain] = (total + size, count + 1)
        for chain, (total, count) in sorted(groups.items(), key=lambda group: -group[1][0])[: self.MOST_GROUPS]:
            print(f"{total} bytes in {count} blocks")
            for address in chain:
                print(f"    {address:#x} {symbol_at(address - 1)}")
        print(f"{len(groups)} groups of blocks that are {least} s old or more")


class QvTimers(gdb.Command):
    """qv timers CONTEXT -- the timers that wait in an atimer_context, by level.

    CONTEXT is an expression: an atimer_context or a pointer to one. The timers of stimer.h lie in a heap library that a
    system may replace, so they are not listed; print one by itself."""

    def __init__(self):
        super().__init__("qv timers", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, _from_tty):
        if not argument:
            raise gdb.GdbError("usage: qv timers CONTEXT")
        context = gdb.parse_and_eval(argument)
        if context.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
            context = context.dereference()
        if context.type.strip_typedefs().name != "atimer_context":
            raise gdb.GdbError(f"{argument} is no atimer_context")
        wheel = Wheel(context)
        print(wheel.to_string())
        for timer in bounded(wheel.elements()):
            print(f"  {WheelTimer(timer).to_string()}")


gdb.printing.register_pretty_printer(gdb.current_objfile(), make_printers(), replace=True)
Qv()
QvCaches()
QvHeap()
QvLeaks()
QvTimers()
