# SPDX-License-Identifier: Apache-2.0
"""The rules that make mutants: small wrong changes of one file, each found by its pattern.

A mutant has a key that survives edits elsewhere in the file: the rule, the function, and the text of the line.
"""

import re
from dataclasses import dataclass

NEIGHBOURS = {"<": "<=", ">": ">=", "<=": "<", ">=": ">", "==": "!=", "!=": "=="}
OPPOSITES = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "+=": "-=", "-=": "+=", "++": "--"}
CALL_OPPOSITES = {"WrappingAdd": "WrappingSubtract", "WrappingSubtract": "WrappingAdd",
                  "WrappingMultiply": "WrappingAdd", "max": "min"}
ENUMERATORS = {"NtpResult": ["kNoResult", "kSuccess", "kMaybeInaccurate"], "NtpDomainCode": ["kOther", "kDefault"]}
# Arguments that are zero already, or that no caller sees.
UNCHANGED_ARGUMENTS = re.compile(
    r"^(?:\{\}|0|true|false|nullptr|this|__LINE__|kSourcePath|kLog\w+|\w+::k\w+)$"
    r"|^[\w:<>]*(?:Ntp|Optional|End)[\w:<>]*\(\)$|Location::|memory_order|^&Ntp|Unretained|^\[|\"")
# What takes the place of a returned or assigned value, by its type; {} is the type's own zero.
NUMBERS = ["0", "1", "-1"]
VALUES = {"bool": ["true", "false"], "int": NUMBERS, "int64_t": NUMBERS, "uint32_t": NUMBERS, "size_t": NUMBERS,
          "double": NUMBERS, "NtpResult": [f"NtpResult::{name}" for name in ENUMERATORS["NtpResult"]]}
# Steps in an order that matters: the first statement, then the one that it changes places with.
SWAPS = [
    ("StopNtpQueue", "is_started_.store(false, std::memory_order_relaxed);",
     "const base::AutoLock lock(stats_lock_);"),
    ("StopNtpQueue", "const base::AutoLock lock(stats_lock_);", "Clean();"),
    ("HandleServerNtpSuccessResult",
     "last_sync_ntp_timestamp_us_.store(GetNtpTimestampFrom1970Internal(), std::memory_order_relaxed);",
     "last_sync_local_time_ms_.store(NowLocalMs(), std::memory_order_relaxed);"),
    ("CheckElapsedTimeDeviation", "const int64_t now_ntp_us = GetNtpTimestampFrom1970Internal();",
     "const int64_t now_local_ms = NowLocalMs();"),
    ("CheckAndReadNtpTimestamp",
     "last_check_local_time_ms_.store(now.ToDeltaSinceWindowsEpoch().InMilliseconds(),\n"
     "                                    std::memory_order_relaxed);",
     "StartInNtpQueue();"),
    ("FinishAndUpdateRequestStats", "CalculateStatsResult(success, record->cost_ms, static_cast<int>(code));",
     "ReportDomainToKeyMetrics(success, code);"),
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
     "CalculateStatsResult(code != NtpResult::kNoResult, record->cost_ms, kWholeAttempt);",
     "ResetServerDomainList();"),
    ("HandleServerNtpErrorResult", "is_sync_finished_ = true;", "Notify(code, record->endpoint);"),
    ("HandleServerNtpErrorResult",
     "UpdateNtpResultIfBetter(record, packet_handler_->GetSystemTimeOffsetFromSteady());",
     "NtpResult code = last_result_.load(std::memory_order_relaxed);"),
    ("CalculateServerResult", "record->sample_count = static_cast<uint32_t>(samples.size());",
     "SortAndSplitResultData(samples);"),
    ("FinishAndUpdateRequestStats", "record->cost_ms = CostMs(record->request_start_time_us, now_us);",
     "const int64_t now_us = GetNowSystemTimestampUs();"),
    ("SortAndSplitResultData", "data.erase(data.begin(), data.begin() + quarter);",
     "data.erase(data.end() - quarter, data.end());"),
]


@dataclass(frozen=True)
class Mutant:
    file: str
    rule: str
    function: str
    number: int  # the line's number today, for people
    text: str  # the whole changed file
    key: str
    start: int  # the change: text[start:end] becomes `new`
    end: int
    new: str
    # The function's body around the change as (start, end, what must follow its end), or None.
    body: tuple | None


class Source:
    """A file, with its comments, strings and preprocessor lines blanked out so that patterns meet code only."""

    def __init__(self, file, text):
        self.file = file
        self.text = text
        self.literals = []  # (start, end) of each string's contents
        self.code = self._blank(text)
        self.bodies = list(self._bodies())  # (start, end, return type) of each function, in order

    def _bodies(self):
        """The inside of the braces of each function; functions in constant expressions are left out."""
        depth_of_functions, stack = 0, []
        for match in re.finditer(r"[{}]", self.code):
            position = match.start()
            if match.group() == "}":
                kind, start, result = stack.pop()
                if kind == "function":
                    depth_of_functions -= 1
                    if "constexpr" not in result:
                        yield start, position, result.replace("inline", "").replace("static", "").strip()
                continue
            before = self.code[max(self.code.rfind(c, 0, position) for c in ";{}") + 1:position].strip()
            header = re.match(r"(.*?)([\w:~]+)\s*\(.*\)[\w\s]*$", before, re.DOTALL)
            if depth_of_functions == 0 and header and not re.search(r"\b(?:namespace|class|struct|enum)\b|=$", before):
                stack.append(("function", position + 1, header.group(1).strip()))
                depth_of_functions += 1
            else:
                stack.append(("other", position, ""))

    def body_of(self, position):
        """The body that holds `position`: (start, end, return type), or None."""
        return next((b for b in self.bodies if b[0] <= position < b[1]), None)

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
    for rule in (_numbers, _operators, _enumerators, _steps, _values, _arguments, _texts):
        yield from rule(source)


def _numbers(source):
    for match in re.finditer(r"(?<![\w.])(\d+)(\.\d+)?(?![\w.])", source.code):
        if re.search(r"\) (?:const )?= $", source.code[:match.start()]):
            continue  # a pure virtual function
        whole, fraction = int(match.group(1)), match.group(2) or ""
        for changed in (whole + 1, whole - 1) if whole > 0 else (1,):
            value = f"{changed}{fraction}"
            yield f"number {match.group()} to {value}", *match.span(), value


def _operators(source):
    code = source.code
    for match in re.finditer(r" (<=|>=|==|!=|<|>) ", code):
        other = NEIGHBOURS[match.group(1)]
        yield f"compare {match.group(1)} to {other}", *match.span(1), other
    for match in re.finditer(r" (&&|\|\|)\s", code):
        other = OPPOSITES[match.group(1)]
        yield f"boolean {match.group(1)} to {other}", *match.span(1), other
    for match in re.finditer(r"(?<=[\s(])!(?=[\w(])", code):
        yield "boolean without !", *match.span(), ""
    for match in re.finditer(r"(?<=[\w)\]]) ([+*/-]|\+=|-=)\s", code):
        other = OPPOSITES[match.group(1)]
        yield f"arithmetic {match.group(1)} to {other}", *match.span(1), other
    for match in re.finditer(r"\+\+", code):
        yield "arithmetic ++ to --", *match.span(), "--"
    for match in re.finditer(rf"\b({'|'.join(CALL_OPPOSITES)})\(", code):
        other = CALL_OPPOSITES[match.group(1)]
        yield f"arithmetic {match.group(1)} to {other}", *match.span(1), other


def _enumerators(source):
    for enumeration, names in ENUMERATORS.items():
        for match in re.finditer(rf"\b{enumeration}::(\w+)", source.code):
            for other in names:
                if other != match.group(1):
                    yield f"value {match.group(1)} to {other}", *match.span(1), other
    for match in re.finditer(r"\b(true|false)\b", source.code):
        other = "false" if match.group() == "true" else "true"
        yield f"value {match.group()} to {other}", *match.span(), other


def _steps(source):
    for start, end in _statements(source.code):
        if source.body_of(start) is not None:
            yield "skip", start, end, ";"
    for function, first, second in SWAPS:
        yield from _swap(source, function, first, second)


def _values(source):
    """A value as a whole: what a function returns, what a variable begins with, what is assigned, a condition."""
    code = source.code
    for match in re.finditer(r"\breturn ([^;]+);", code):
        body = source.body_of(match.start())
        yield from _whole_value(match, body[2] if body else "")
    for match in re.finditer(r"^ +(?:static )?(?:const )?([\w:]+(?:<\w+>)?) \w+ = ([^;]+);", code, re.MULTILINE):
        if source.body_of(match.start()) is not None:
            yield from _whole_value(match, match.group(1), 2)
    for match in re.finditer(r"^ +[\w.>()\[\]-]+ = ([^;]+);", code, re.MULTILINE):
        if source.body_of(match.start()) is not None:
            yield from _whole_value(match, "")
    for match in re.finditer(r"\b(?:if|while) \(", code):
        end = _closing(code, match.end() - 1)
        if ";" not in code[match.end():end]:  # a declaration before the condition
            for value in ("true", "false"):
                yield f"condition {value}", match.end(), end, value


def _whole_value(match, of_type, group=1):
    value = match.group(group)
    if re.search(r"[{}]", value) or re.fullmatch(r"true|false|nullptr|-?[\d.]+|\w+::k\w+|Ntp\w+\(\)", value):
        return
    for other in VALUES.get(of_type, ["{}"]):
        if other != value:
            yield f"value to {other}", *match.span(group), other


def _arguments(source):
    """One argument of a call replaced by its type's zero, of a printed line by 0. Enumerators have their own rule."""
    code = source.code
    for match in re.finditer(r"(?<=[\w>])(?<!->)\(", code):
        name = re.search(r"([\w:]+)(?:<[\w:<>&* ]+>)?$", code[:match.start()]).group(1)
        if source.body_of(match.start()) is None or re.search(r"^(?:if|while|for|switch|return)$|cast$|CreateFromHere",
                                                              name):
            continue
        for number, (start, end) in enumerate(_split(code, match.end(), _closing(code, match.start()))):
            argument = code[start:end]
            if not argument or UNCHANGED_ARGUMENTS.search(argument):
                continue
            yield f"argument {number + 1} of {name}", start, end, "0" if name == "LocalLog" else "{}"


def _closing(code, opening):
    depth = 0
    for position in range(opening, len(code)):
        depth += {"(": 1, ")": -1}.get(code[position], 0)
        if depth == 0:
            return position
    raise ValueError("a parenthesis stays open")


def _split(code, start, end):
    """The arguments between `start` and `end`, without the space around them."""
    depth, begin = 0, start
    for position in range(start, end + 1):
        character = code[position] if position < end else ","
        if character in "([{":
            depth += 1
        elif character in ")]}":
            depth -= 1
        elif character == "," and depth == 0:
            piece = code[begin:position]
            left = begin + len(piece) - len(piece.lstrip())
            yield left, left + len(piece.strip())
            begin = position + 1


def _texts(source):
    text, code = source.text, source.code
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
    mutants, seen, made = [], {}, set()
    for rule, start, end, new in _replacements(source):
        changed = text[:start] + new + text[end:]
        if changed in made or changed == text:
            continue  # two rules may come to the same
        made.add(changed)
        line, function = source.line_of(start), source.function_of(start)
        key = f"{file} {function} [{rule}] {line}"
        seen[key] = seen.get(key, 0) + 1
        if seen[key] > 1:
            key += f" #{seen[key]}"
        body = source.body_of(start) if file.endswith(".cc") else None
        if body is not None:
            # A function that no longer returns must not run on into the next change.
            body = (body[0], body[1], "return;" if body[2] in ("void", "") else "std::abort();")
        mutants.append(Mutant(file, rule, function, text.count("\n", 0, start) + 1, changed, key, start, end, new,
                              body))
    return mutants
