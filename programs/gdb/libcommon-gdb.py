# SPDX-License-Identifier: Apache-2.0
"""gdb's view of libcommon: pretty printers for the public records, and the commands `qv caches` and `qv timers`.

gdb loads this file by itself with libcommon.so.1 when it is installed in the auto-load folder; otherwise `source` it.
Everything here reads memory and calls nothing in the process, so it serves live processes and cores alike.

Printers need the types of the public headers, which the debug information of the host has. The commands need nothing but
the library's dynamic symbols: where no debug information describes a record, it is read by the layout of its header.
What a broken process holds is not trusted: walks are bounded, and memory that cannot be read ends them with a note.
"""

import gdb
import gdb.printing

MOST_WALKED = 1_000_000  # elements of one walk; a damaged list may lead round in circles
MOST_LOG_SIZE = 31  # of a table of buckets


# ---- memory ----


def address_of(pointer):
    return int(pointer.cast(gdb.lookup_type("unsigned long")))


def read_number(address, size, signed=False):
    """The number at an address; gdb.MemoryError where nothing is mapped."""
    order = "big" if "big" in gdb.execute("show endian", to_string=True) else "little"
    return int.from_bytes(bytes(gdb.selected_inferior().read_memory(address, size)), order, signed=signed)


def read_pointer(address):
    return read_number(address, 8)


def read_text(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, size)).split(b"\0")[0].decode("utf-8", "replace")


def symbol_at(address):
    """The function at an address as gdb names it; the address where it has no name."""
    text = gdb.execute(f"info symbol {address:#x}", to_string=True).strip()
    return f"{address:#x}" if text.startswith("No symbol") else text.split(" in section")[0]


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
    """What libcommon keeps in this process: qv caches, qv timers CONTEXT."""

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
            pages, _flags, in_use, size, _slot, units, _per_slab, _id = (
                read_number(cache + self.NUMBERS + 4 * i, 4) for i in range(8))
            print(f"{name:32} {size:8} {in_use:10} {pages:8} {pages * units * self.PAGE_UNIT:12}")


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
QvTimers()
