"""Reads `callgrind_annotate --inclusive=yes --tree=caller` of the public
pooled pair and prints each layer's inclusive instructions per pair."""
import re
import sys

TOTAL = re.compile(r"^\s*([\d,]+) \(100\.0+%\)\s+PROGRAM TOTALS")
FUNC = re.compile(r"^\s*([\d,]+) \(\s*[\d.]+%\)\s+\*\s+(\S.*)$")
CALLER = re.compile(r"^\s*([\d,]+) \(\s*[\d.]+%\)\s+<\s+(\S.*?) \(([\d,]+)x\)")

# Layer: (function pattern, caller pattern or None); inclusive costs summed.
LAYERS = [
    ("service lock (mImplLock, mTimeOutLock)", r"pthread_mutex_(un)?lock", r"TalMemPoolThread::|AutoMutex|Mutex::"),
    ("idle re-arm (ForceCheck, looper wake)", r"TalMemPoolThread::ForceCheck\(\)", None),
    ("monitor accounting", r"TalMemPoolMonitor::UpdateMemoryStatus\(", None),
    ("in-pool core (carve, free)", r"qv::TalMem::(Alloc|Free)\(", r"TalMemPoolImpl::"),
    ("in-pool record tag (SetMcInfo, GetMcInfo)", r"qv::TalMem::(SetMcInfo|GetMcInfo)\(", r"TalMemPoolImpl::"),
    ("camera-buffer split", r"CameraBufferInterface::SplitCamBuffer\(", None),
    # The split is made inside CfgMemChunk; its cost is taken out of the record below.
    ("chunk record (create, describe, destroy)", r"TalMemPoolImpl::(NewMemChunk|DelMemChunk)\(|TalMemChunk::CfgMemChunk\(|TalMemChunk::~TalMemChunk\(", r"TalMemPoolImpl::"),
    ("pool manager maps and pool lookup", r"_Hashtable|_Map_base|TalMemPoolImpl::FindPoolChunk", r"TalMemPoolImpl::(Free|PoolAlloc)\("),
    ("dropped log lines", r"__android_log_print|__android_log_is_loggable", r"TalMemPoolImpl::|TalMemPoolThread::"),
    ("entry names (const char* to std::string)", r"basic_string.*_M_construct|basic_string<.*>::basic_string", r"TalMemPool::(Malloc|Free)"),
]


def main():
    text = sys.stdin.read().splitlines()
    total = 0
    pairs = 0
    inclusive = {}
    callers = {}
    pending = []  # caller lines come before the function they call
    for line in text:
        m = TOTAL.match(line)
        if m:
            total = int(m.group(1).replace(",", ""))
        m = FUNC.match(line)
        if m:
            inclusive[m.group(2)] = int(m.group(1).replace(",", ""))
            callers[m.group(2)] = pending
            pending = []
            continue
        m = CALLER.match(line)
        if m:
            pending.append((m.group(2), int(m.group(1).replace(",", "")), int(m.group(3).replace(",", ""))))
        elif not line.strip():
            pending = []
    for name, calls in callers.items():
        if "TalMemPool::Malloc(unsigned int" in name:
            pairs += sum(c for caller, _, c in calls if "PublicStep" in caller)
    if pairs == 0 or total == 0:
        print("no public pairs in the profile")
        return 1
    print(f"{pairs} public pairs, {total / pairs:.0f} user-space instructions per pair")
    accounted = 0
    costs = {}
    for label, func, caller in LAYERS:
        cost = 0
        for name, calls in callers.items():
            if not re.search(func, name):
                continue
            for who, ir, _ in calls:
                if caller is None or re.search(caller, who):
                    if caller is None and re.search(func, who):
                        continue  # recursion inside the layer itself
                    cost += ir
        if label.startswith("chunk record"):
            cost -= costs["camera-buffer split"]
        costs[label.split(" (")[0]] = cost
        accounted += cost
        print(f"  {label:45s} {cost / pairs:7.0f}  {100.0 * cost / total:5.1f}%")
    rest = total - accounted
    print(f"  {'everything else (routing, getters, new/delete)':45s} {rest / pairs:7.0f}  {100.0 * rest / total:5.1f}%")
    return 0


if __name__ == "__main__":
    sys.exit(main())
