#!/usr/bin/env python3
"""The library's export list, taken from the public header.

  exports.py names HEADER                     one exported name a line
  exports.py def HEADER OUT [--stdcall]       module-definition file for the DLL
  exports.py table HEADER OUT                 X(name) lines for C programs
  exports.py check-pe HEADER DLL OBJDUMP      the DLL exports exactly the header's names
  exports.py check-elf HEADER SO NM           the shared object exports exactly them
  exports.py check-stdcall HEADER DLL OBJDUMP every 32-bit export pops its own arguments
  exports.py check-static HEADER LIB NM       the static library's global names are the
                                              header's and the internal namespace's only

With --stdcall every name carries its argument byte count (name@N), which
the linker's --kill-at strips from the export table while the import library
keeps the decorated names that callers compiled against the header use.
"""
import re
import subprocess
import sys

EXPORT = re.compile(r"\bIMG_EXPORT\b(?P<ret>[^;{]*?)\bIMG_API\s+(?P<name>[A-Za-z_]\w*)\s*\(")
EIGHT_BYTE = re.compile(r"\b(double|long\s+long|u?int64_t|__int64)\b")
NOT_A_WORD = re.compile(r"\b(float|struct|union)\b")


def strip_comments(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    # Preprocessor lines (with their continuations) declare nothing.
    return re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", " ", text, flags=re.M)


def split_params(text):
    """Top-level comma split of a parameter list."""
    parts, depth, cur = [], 0, ""
    for ch in text:
        if ch == "(":
            depth += 1
        elif ch == ")":
            depth -= 1
        if ch == "," and depth == 0:
            parts.append(cur.strip())
            cur = ""
        else:
            cur += ch
    if cur.strip():
        parts.append(cur.strip())
    return parts


def param_bytes(param):
    """Stack bytes of one argument on 32-bit x86."""
    if "*" in param or "(" in param:
        return 4
    if EIGHT_BYTE.search(param):
        return 8
    if NOT_A_WORD.search(param) and "*" not in param:
        raise ValueError(f"cannot size parameter '{param}'")
    return 4


# Blocks of declarations for one system only (not nested).
SYSTEM_BLOCK = re.compile(r"^[ \t]*#\s*if(?P<neg>n?)def\s+_WIN32\b(?P<body>.*?)^[ \t]*#\s*endif\b", re.S | re.M)


def for_system(text, windows):
    """The header as the compiler sees it on Windows or elsewhere."""
    def keep(m):
        return m.group("body") if (m.group("neg") == "") == windows else ""
    return SYSTEM_BLOCK.sub(keep, text)


# The commands about the Windows DLL read the header as Windows does.
WINDOWS_COMMANDS = {"def", "table", "check-pe", "check-stdcall"}


def parse(header_path, windows=False):
    """[(name, stdcall argument bytes)] in header order."""
    with open(header_path, encoding="utf-8") as f:
        text = strip_comments(for_system(re.sub(r"/\*.*?\*/", " ", f.read(), flags=re.S), windows))
    found = []
    for m in EXPORT.finditer(text):
        # Find the matching close parenthesis of the parameter list.
        i, depth = m.end(), 1
        while depth and i < len(text):
            depth += {"(": 1, ")": -1}.get(text[i], 0)
            i += 1
        if depth:
            raise ValueError(f"unterminated declaration of {m.group('name')}")
        params = split_params(text[m.end():i - 1])
        if params in ([], ["void"]):
            size = 0
        else:
            size = sum(param_bytes(p) for p in params)
        found.append((m.group("name"), size))
    names = [n for n, _ in found]
    dupes = {n for n in names if names.count(n) > 1}
    if dupes:
        raise ValueError("declared twice: " + ", ".join(sorted(dupes)))
    if not found:
        raise ValueError(f"no exports found in {header_path}")
    return found


def pe_exports(dll, objdump):
    out = subprocess.run([objdump, "-p", dll], check=True, capture_output=True, text=True).stdout
    names, inside = [], False
    for line in out.splitlines():
        if line.startswith("[Ordinal/Name Pointer] Table"):
            inside = True
            continue
        if inside:
            m = re.match(r"\s*\[\s*\d+\]\s+(\S+)\s*$", line)
            if not m:
                break
            names.append(m.group(1))
    return names


def elf_exports(so, nm):
    out = subprocess.run([nm, "-D", "--defined-only", so], check=True, capture_output=True, text=True).stdout
    names = []
    for line in out.splitlines():
        parts = line.split()
        # Symbol-version records (type A) are not functions, nor are the
        # linker's section markers, which a link against X11 exports.
        if len(parts) >= 3 and parts[1] != "A" and parts[2] not in ("__bss_start", "_edata", "_end"):
            names.append(parts[2].split("@")[0])
    return names


INTERNAL = "brv::"
# What the C++ compiler and runtime may add to any object file.
RUNTIME = re.compile(r"^(DW\.ref\.__gxx_personality_v0|std::|__gnu_cxx::|(typeinfo|typeinfo name|vtable) for std::|"
                     r"__x86\.get_pc_thunk\.|__odr_asan\.)")
# Unoptimised builds keep the standard library's inline templates as weak
# definitions, their names led by a return type.
WEAK_RUNTIME = re.compile(r"(^|\s)(std|__gnu_cxx)::")


def static_strays(header_names, lib, nm):
    """Global names defined in the archive that are neither exports nor internal."""
    out = subprocess.run([nm, "-g", "--defined-only", "-C", lib], check=True, capture_output=True, text=True).stdout
    allowed = set(header_names)
    strays = set()
    for line in out.splitlines():
        parts = line.split(None, 2)
        if len(parts) < 3 or line.endswith(":"):
            continue
        name = parts[2]
        bare = name.split("(")[0]
        if bare in allowed or bare.startswith(INTERNAL) or RUNTIME.match(name):
            continue
        if parts[1] in "WV" and WEAK_RUNTIME.search(name):
            continue
        # Also the names of the internal namespace's lambdas and guards.
        if INTERNAL in name:
            continue
        strays.add(name)
    return sorted(strays)


def stdcall_problems(exports, dll, objdump):
    """Each export's code must return with 'ret $bytes': the callee pops."""
    out = subprocess.run([objdump, "-d", "--no-show-raw-insn", dll], check=True, capture_output=True,
                         text=True).stdout
    label = re.compile(r"^[0-9a-f]+ <_(?P<name>\w+)@(?P<size>\d+)(?P<part>\.\w+)?>:$")
    rets, tails, current = {}, {}, None
    for line in out.splitlines():
        m = label.match(line)
        if m:
            current = (m.group("name"), int(m.group("size")))
            rets.setdefault(current, [])
            continue
        if current is None:
            continue
        if not line.strip():
            current = None
            continue
        fields = line.split("\t")
        insn = fields[-1].strip() if len(fields) > 1 else ""
        if insn.startswith("ret"):
            rets[current].append(insn)
        elif insn:
            tails[current] = insn.startswith("jmp")
    problems = []
    for name, size in exports:
        key = (name, size)
        if key not in rets:
            problems.append(f"{name}: no code labelled {name}@{size}")
            continue
        want = f"ret    $0x{size:x}" if size else "ret"
        wrong = sorted({r for r in rets[key] if " ".join(r.split()) != " ".join(want.split())})
        if wrong:
            problems.append(f"{name}: returns with {', '.join(wrong)}, expected '{want}'")
        if not rets[key] and not tails.get(key):
            problems.append(f"{name}: no return found")
    return problems


def compare(header_names, exported, what):
    missing = sorted(set(header_names) - set(exported))
    extra = sorted(set(exported) - set(header_names))
    dupes = sorted({n for n in exported if exported.count(n) > 1})
    for n in missing:
        print(f"{what}: missing export {n}")
    for n in extra:
        print(f"{what}: export not in the header: {n}")
    for n in dupes:
        print(f"{what}: exported twice: {n}")
    if missing or extra or dupes:
        return 1
    print(f"{what}: exports match the header ({len(header_names)} names)")
    return 0


def main(argv):
    if len(argv) < 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    cmd, header = argv[1], argv[2]
    exports = parse(header, cmd in WINDOWS_COMMANDS)
    names = [n for n, _ in exports]
    if cmd == "names":
        print("\n".join(names))
        return 0
    if cmd == "def" and len(argv) >= 4:
        stdcall = "--stdcall" in argv[4:]
        lines = ["LIBRARY brivanta.dll", "EXPORTS"]
        lines += [f"  {n}@{size}" if stdcall else f"  {n}" for n, size in exports]
        write_if_changed(argv[3], "\n".join(lines) + "\n")
        return 0
    if cmd == "table" and len(argv) >= 4:
        lines = ["/* Generated from the public header: one X(name) per export. */"]
        lines += [f"X({n})" for n in names]
        write_if_changed(argv[3], "\n".join(lines) + "\n")
        return 0
    if cmd == "check-pe" and len(argv) >= 5:
        return compare(names, pe_exports(argv[3], argv[4]), argv[3])
    if cmd == "check-stdcall" and len(argv) >= 5:
        problems = stdcall_problems(exports, argv[3], argv[4])
        for p in problems:
            print(f"{argv[3]}: {p}")
        if not problems:
            print(f"{argv[3]}: all {len(exports)} exports pop their own arguments")
        return 1 if problems else 0
    if cmd == "check-static" and len(argv) >= 5:
        strays = static_strays(names, argv[3], argv[4])
        for n in strays:
            print(f"{argv[3]}: global name outside the API and the {INTERNAL[:-2]} namespace: {n}")
        if not strays:
            print(f"{argv[3]}: global names are the API's and the {INTERNAL[:-2]} namespace's")
        return 1 if strays else 0
    if cmd == "check-elf" and len(argv) >= 5:
        return compare(names, elf_exports(argv[3], argv[4]), argv[3])
    print(__doc__.strip(), file=sys.stderr)
    return 2


def write_if_changed(path, text):
    """Leaves an unchanged file untouched, so nothing downstream rebuilds."""
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return
    except OSError:
        pass
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv))
    except (ValueError, OSError, subprocess.CalledProcessError) as e:
        print(f"exports.py: {e}", file=sys.stderr)
        sys.exit(1)
