"""The rows of the table: what is measured, beside which floor, and what is promised of it.

A row of the driver names one of its cases, and is measured twice: with all processes pinned to one
CPU, and placed freely. A row of Google Benchmark names a program and two of its benchmarks; where one
thread does nothing but the operation, its instructions are counted too. A counted row names one of
the driver's cases that is never timed.
"""

from dataclasses import dataclass
from typing import Optional

PINNED = "pinned"
FREE = "free"

AT_MOST = "at most"
AT_LEAST = "at least"


@dataclass(frozen=True)
class Limit:
    """A promise. It is one of the ratio to the floor, or of the figure itself."""

    value: float
    kind: str = AT_MOST
    of: str = "ratio"  # or "p50", the figure itself
    placement: Optional[str] = None  # where it is promised; None: wherever it is measured

    def text(self, unit):
        return f"{self.kind} {self.value:g}" + (" x" if self.of == "ratio" else f" {unit}")

    def is_kept(self, row):
        figure = row[self.of]
        if figure is None:
            return None
        # To the digits that the table shows: 2.004 switches are two.
        figure = round(figure, 1 if self.of == "p50" else 2)
        return figure <= self.value if self.kind == AT_MOST else figure >= self.value


@dataclass(frozen=True)
class ProcessRow:
    case: str
    unit: str
    limit: Optional[Limit] = None
    compared: str = "p50"  # which figure the ratio is of
    placements: tuple = (PINNED, FREE)
    has_floor: bool = True
    # Adds a row with the context switches of one operation, and this limit of it.
    switches: Optional[Limit] = None


@dataclass(frozen=True)
class InProcessRow:
    name: str
    program: str
    ours: str
    floor: str
    limit: Optional[Limit] = None
    unit: str = "ns"
    counted: bool = True  # what threads do to each other is no number of instructions
    counted_briefly: bool = False  # in a brief run too


@dataclass(frozen=True)
class CountedRow:
    """Instructions of all processes that take part. limits.py says what each may take."""

    case: str

    @property
    def name(self):
        return self.case.replace("counted_", "", 1)


def _cached(name, ours, floor, limit, threads=(None,), counted=True):
    """Threads of None: both benchmarks run with one thread alone and have none in their names."""
    for variables in (1000, 100000):
        for count in threads:
            suffix = f"/variables:{variables}/real_time" + (f"/threads:{count}" if count else "")
            yield InProcessRow(f"cached_{name}_{variables}" + (f"_threads_{count}" if count else ""),
                               "cached_read_benchmark", ours + suffix, floor + suffix, limit,
                               counted=counted and count in (None, 1),
                               counted_briefly=(name, variables) == ("int", 1000))


def _growing(name, program, benchmark, limit):
    for registrations in (10000, 100000):
        suffix = "/registrations:{}/real_time"
        yield InProcessRow(f"{name}_{registrations}", program, benchmark + suffix.format(registrations),
                           benchmark + suffix.format(100), limit if registrations == 100000 else None,
                           counted_briefly=name in _COUNTED_BRIEFLY and registrations == 10000)


# With a cached read, one row of each program.
_COUNTED_BRIEFLY = ("dispatch", "find_consumers", "find_subscriber")
_CACHED = Limit(1.5)
_REQUEST = Limit(1.4, placement=PINNED)

IN_PROCESS = [
    *_cached("text", "BM_Text", "BM_FloorText", _CACHED, (1, 4)),
    *_cached("int", "BM_Int", "BM_FloorInt", _CACHED),
    *_cached("bool", "BM_Bool", "BM_FloorBool", _CACHED),
    *_cached("list", "BM_List", "BM_FloorList", _CACHED, (1, 4)),
    *_cached("text_while_notices", "BM_TextWhileNotices", "BM_FloorTextWhileNotices", _CACHED,
             counted=False),
    # The floor is given its key, this read has to make it: no promise.
    *_cached("text_by_parts", "BM_TextByParts", "BM_FloorText", None, (1,)),
    *_growing("dispatch", "dispatch_benchmark", "BM_DispatchNotice", Limit(2)),
    *_growing("find_consumers", "registry_benchmark", "BM_FindConsumers", None),
    *_growing("find_nobody", "registry_benchmark", "BM_FindNobody", None),
    *_growing("find_group", "registry_benchmark", "BM_FindGroup", None),
    *_growing("find_providers", "registry_benchmark", "BM_FindProviders", None),
    *_growing("register", "registry_benchmark", "BM_Register", None),
    *_growing("find_subscriber", "subscriptions_benchmark", "BM_FindSubscriber", Limit(2)),
    *_growing("find_no_subscriber", "subscriptions_benchmark", "BM_FindNobody", Limit(2)),
]

PROCESSES = [
    ProcessRow("uncached_read", "us", _REQUEST, switches=Limit(2, of="p50", placement=PINNED)),
    ProcessRow("validate", "us", _REQUEST),
    ProcessRow("write_unchanged", "us", _REQUEST),
    ProcessRow("durable_write", "us", Limit(1.3)),
    ProcessRow("store_commit", "us"),
    ProcessRow("writers_1", "writes/s"),
    ProcessRow("writers_4", "writes/s"),
    ProcessRow("writers_16", "writes/s", Limit(6, AT_LEAST)),
    ProcessRow("notice", "us"),
    ProcessRow("notice_after_commit", "us", Limit(3)),
    ProcessRow("notice_in_memory_1", "us"),
    ProcessRow("notice_in_memory_10", "us"),
    ProcessRow("notice_in_memory_64", "us"),
    ProcessRow("requests_1", "requests/s"),
    ProcessRow("requests_4", "requests/s", Limit(0.6, AT_LEAST)),
    ProcessRow("requests_16", "requests/s"),
    ProcessRow("read_while_writing", "us", Limit(3), compared="p99"),
    ProcessRow("service_start_10000", "ms", Limit(250, of="p50")),
    ProcessRow("first_reads_1000", "ms"),
    ProcessRow("service_memory_10000", "MiB", Limit(16, of="p50"), placements=(FREE,)),
    ProcessRow("service_memory_per_variable", "bytes", placements=(FREE,), has_floor=False),
    ProcessRow("client_memory_idle", "MiB", placements=(FREE,)),
    ProcessRow("client_memory_per_variable", "bytes", placements=(FREE,), has_floor=False),
]

COUNTED = [
    CountedRow("counted_uncached_read"),
    CountedRow("counted_validate"),
    CountedRow("counted_write_unchanged"),
    CountedRow("counted_registration"),
    CountedRow("counted_durable_write"),
    CountedRow("counted_durable_write_1"),
    CountedRow("counted_durable_write_10"),
]
