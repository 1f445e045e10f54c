"""The rules that make mutants: small wrong changes of one source file, each found by its pattern.

A mutant has a key that survives edits elsewhere in the file: the rule, the function, and the text of the line.
"""

import re
from dataclasses import dataclass

NEIGHBOURS = {"<": "<=", ">": ">=", "<=": "<", ">=": ">", "==": "!=", "!=": "=="}
# Steps in an order that matters: the first statement, then the one that it changes places with.
SWAPS = [
    ("StopNtpQueue", "Clean();", 'LocalLog(kLogProgress, kSourcePath, __LINE__, "Stop ntp queue");'),
    ("Clean", "if (packet_handler_ != nullptr) {\n    packet_handler_->Clean();\n  }", "ResetServerDomainList();"),
    ("DoStartSyncTime", "PreparePacketHandler();",
     'LocalLog(kLogProgress, kSourcePath, __LINE__, "Start NTP time sync");'),
    ("DoStartSyncTime", "is_sync_finished_ = false;", "StartRequest(domain_infos_);"),
    ("StartRequest", "record->request_start_time_us = GetNowSystemTimestampUs();", "SendPacketToServer(domain);"),
    ("StartRequest", "record->is_requesting = true;", "SendPacketToServer(domain);"),
    ("HandleServerNtpSuccessResult", "Notify(NtpResult::kSuccess, record->endpoint);", "ResetServerDomainList();"),
    ("HandleServerNtpSuccessResult", "CalculateStatsResult(true, record->cost_ms, kWholeAttempt);",
     "ResetServerDomainList();"),
    ("HandleServerNtpSuccessResult", "is_sync_finished_ = true;", "Notify(NtpResult::kSuccess, record->endpoint);"),
    ("HandleServerNtpSuccessResult",
     "UpdateNtpResultIfBetter(record, packet_handler_->GetSystemTimeOffsetFromSteady());",
     "last_sync_ntp_timestamp_us_.store(GetNtpTimestampFrom1970Internal(), std::memory_order_relaxed);"),
    ("HandleServerNtpErrorResult", "Notify(code, record->endpoint);", "ResetServerDomainList();"),
    ("HandleServerNtpErrorResult",
     "CalculateStatsResult(IsCountedAsSuccess(code), record->cost_ms, kWholeAttempt);",
     "ResetServerDomainList();"),
    ("HandleServerNtpErrorResult", "is_sync_finished_ = true;", "Notify(code, record->endpoint);"),
    ("HandleServerNtpErrorResult",
     "UpdateNtpResultIfBetter(record, packet_handler_->GetSystemTimeOffsetFromSteady());",
     "const NtpResult code = AnnouncedWithoutSuccess(last_result_.load(std::memory_order_relaxed));"),
    ("CalculateServerResult", "record->sample_count = static_cast<uint32_t>(samples.size());",
     "SortAndSplitResultData(samples);"),
    ("FinishAndUpdateRequestStats", "record->cost_ms = CostMs(record->request_start_time_us, now_us);",
     "const int64_t now_us = GetNowSystemTimestampUs();"),
]


@dataclass(frozen=True)
class Mutant:
    file: str
    rule: str
    function: str
    line: str  # the text of the line that changes
    number: int  # the line's number today, for people
    text: str  # the whole changed file
    key: str


class Source:
    """A file, with its comments, strings and preprocessor lines blanked out so that patterns meet code only."""

    def __init__(self, file, text):
        self.file = file
        self.text = text
        self.literals = []  # (start, end) of each string's contents
        self.code = self._blank(text)

    def _blank(self, text):
        out = list(text)

        def blank(start, end):
            for i in range(start, end):
                if out[i] != "\n":
                    out[i] = " "

        # A digit separator would look like the start of a character; the house does not use them.
        for match in re.finditer(r'//[^\n]*|^#[^\n]*|"((?:\\.|[^"\\\n])*)"', text, re.MULTILINE):
            if match.group(1) is None:
                blank(*match.span())
            else:
                blank(*match.span(1))
                self.literals.append(match.span(1))
        return "".join(out)

    def line_of(self, position):
        start = self.text.rfind("\n", 0, position) + 1
        end = self.text.find("\n", position)
        return self.text[start:end].strip()

    def function_of(self, position):
        """The last name before `position` that opens at the left margin: a function, a record or a constant."""
        name = "-"
        for match in re.finditer(r"^[A-Za-z\[][^\n;]*", self.code[:position], re.MULTILINE):
            words = re.findall(r"(~?\w+)\s*\(|(?:struct|enum class|class)\s+(\w+)|(\bk[A-Z]\w*)", match.group())
            if words:
                name = next(filter(None, words[0]))
        return name


def _replacements(source):
    """Yields (rule, start, end, new text) in the order of the rules, then of the file."""
    code, text = source.code, source.text

    for match in re.finditer(r"(?<![\w.])(\d+)(\.\d+)?(?![\w.])", code):
        whole, fraction = int(match.group(1)), match.group(2) or ""
        for changed in (whole + 1, whole - 1) if whole > 0 else (1,):
            value = f"{changed}{fraction}"
            yield f"number {match.group()} to {value}", *match.span(), value

    for match in re.finditer(r" (<=|>=|==|!=|<|>) ", code):
        other = NEIGHBOURS[match.group(1)]
        yield f"compare {match.group(1)} to {other}", *match.span(1), other

    for start, end in _statements(code):
        yield "skip", start, end, ";"
    for function, first, second in SWAPS:
        yield from _swap(source, function, first, second)

    for start, end in source.literals:
        position = _changeable(text, start, end)
        if position is not None:
            new = "x" if text[position] != "x" else "y"
            yield "text", position, position + 1, new
    for match in re.finditer(r"LocalLog\((k\w+),", code):
        other = "kLogFailure" if match.group(1) == "kLogProgress" else "kLogProgress"
        yield f"level {match.group(1)} to {other}", *match.span(1), other


def _statements(code):
    """The statements that do something when they run: calls, assignments, locks and jumps."""
    pattern = re.compile(
        r"^  +(?!(?:using|constexpr|static_assert|static|case|default|if|for|while|switch|else|friend|inline)\b)"
        r"(?:const base::AutoLock |(?!(?:const|auto|return \w)\b)[\w(*])[^{};]*(?:\{[^{};]*\}[^{};]*)*;", re.MULTILINE)
    for match in pattern.finditer(code):
        start = match.start() + len(match.group()) - len(match.group().lstrip())
        statement = match.group().strip()
        # A continued line of a longer statement begins inside its parentheses.
        before = code[:match.start()].rstrip()
        if not before or before[-1] not in ";{}:":
            continue
        if statement.count("(") != statement.count(")"):
            continue
        action = r"const base::AutoLock|return;|continue;|break;|\+\+|[\w.:>()\[\]*-]+ [-+]?= |[\w.:>-]+\(|\(\*"
        if re.match(action, statement):
            yield start, match.end()


def _swap(source, function, first, second):
    for match in re.finditer(re.escape(first), source.text):
        if source.function_of(match.start()) != function:
            continue
        # Whichever stands first in the file.
        limit = source.text.find("\n}\n", match.start())
        begin = source.text.rfind("\n}\n", 0, match.start())
        other = source.text.find(second, begin, limit)
        if other < 0:
            continue
        a, b = sorted([(match.start(), match.end()), (other, other + len(second))])
        text = source.text
        new = text[b[0]:b[1]] + text[a[1]:b[0]] + text[a[0]:a[1]]
        yield f"swap with: {text[b[0]:b[1]].splitlines()[0]}", a[0], b[1], new
        return


def _changeable(text, start, end):
    """The first letter of a string's contents that is no part of a conversion or an escape."""
    contents = re.sub(r"%[-+ #0-9.]*(?:ll|l|z)?[a-zA-Z]|\\.", lambda m: "\0" * len(m.group()), text[start:end])
    match = re.search(r"[A-Za-z]", contents) or re.search(r"[^\0]", contents)
    return None if match is None else start + match.start()


def make_mutants(file, text):
    source = Source(file, text)
    mutants, seen = [], {}
    for rule, start, end, new in _replacements(source):
        changed = text[:start] + new + text[end:]
        if changed == text:
            continue
        line, function = source.line_of(start), source.function_of(start)
        key = f"{file} {function} [{rule}] {line}"
        seen[key] = seen.get(key, 0) + 1
        if seen[key] > 1:
            key += f" #{seen[key]}"
        mutants.append(Mutant(file, rule, function, line, text.count("\n", 0, start) + 1, changed, key))
    return mutants
