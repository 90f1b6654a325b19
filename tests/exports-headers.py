#!/usr/bin/python3
# Compares the exported headers' declarations with the shared library's
# dynamic symbol table, in both directions:
#  - every function and object that a header in include/ declares, that the
#    library defines and that is not marked QVL_HIDDEN, is exported (a
#    declaration without QVL_API, on itself or on its class, is hidden by
#    the library's default visibility and fails here);
#  - every exported function or object of ours is declared in a header, or
#    instantiates a header's function template (a helper of the sources
#    exported by mistake fails here). Vtables and type information follow
#    their class's QVL_API, which its members' check covers.
# The headers are read by clang (Debian's python3-clang-14), which gives
# each declaration its mangled name and attributes.
#   usage: exports-headers.py <include dir> <exported names> <archive names>
# The two name files hold mangled names, one per line: what the shared
# library exports, and what the static archive of the same objects defines.
import os
import re
import subprocess
import sys
import tempfile

import clang.cindex as ci

ci.Config.set_library_file("/usr/lib/llvm-14/lib/libclang-14.so.1")
K = ci.CursorKind
FUNCS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.CONVERSION_FUNCTION}
SCOPES = {K.NAMESPACE, K.CLASS_DECL, K.STRUCT_DECL, K.UNION_DECL, K.LINKAGE_SPEC}


def own_visibility(cur):
    for ch in cur.get_children():
        if ch.kind == K.VISIBILITY_ATTR:
            return ch.spelling  # "default" or "hidden"
    return None


def tokens(cur):
    return [t.spelling for t in cur.get_tokens()]


def qualified(cur):
    parts = []
    while cur is not None and cur.kind != K.TRANSLATION_UNIT:
        parts.append(cur.spelling)
        cur = cur.semantic_parent
    return "::".join(reversed(parts))


def collect(include_dir):
    headers = sorted(f for f in os.listdir(include_dir) if f.endswith(".h"))
    with tempfile.NamedTemporaryFile("w", suffix=".cc") as tu_file:
        tu_file.write("".join('#include "%s"\n' % h for h in headers))
        tu_file.flush()
        tu = ci.Index.create().parse(tu_file.name, args=["-std=c++17", "-x", "c++", "-I", include_dir])
    errors = [d for d in tu.diagnostics if d.severity >= ci.Diagnostic.Error]
    if errors:
        sys.exit("exports-headers: the headers do not parse: %s" % errors[0])
    root = os.path.realpath(include_dir) + os.sep
    decls = {}    # mangled name -> (effective visibility, where)
    templates = set()  # qualified names of the headers' function templates

    def visit(cur, vis):
        for ch in cur.get_children():
            loc = ch.location.file
            if loc is None or not os.path.realpath(loc.name).startswith(root):
                continue
            where = "%s:%d" % (os.path.basename(loc.name), ch.location.line)
            v = own_visibility(ch) or vis
            if ch.kind in SCOPES:
                visit(ch, v)
            elif ch.kind == K.FUNCTION_TEMPLATE:
                templates.add(qualified(ch))  # the library may instantiate it for its callers
            elif ch.kind in FUNCS:
                # inline (a body in the header), deleted or defaulted: nothing
                # of the library's to export (a pure function may have a body)
                t = tokens(ch)
                if ch.is_definition() or ch.is_default_method() or "inline" in t:
                    continue
                if ch.linkage != ci.LinkageKind.EXTERNAL or ("=", "delete") in zip(t, t[1:]):
                    continue
                decls.setdefault(ch.mangled_name, (v, where))
            elif ch.kind == K.VAR_DECL and ch.linkage == ci.LinkageKind.EXTERNAL:
                t = tokens(ch)
                if "constexpr" in t or "inline" in t or "=" in t or "{" in t:
                    continue  # a constant the compiler folds; no definition needed
                decls.setdefault(ch.mangled_name, (v, where))

    visit(tu.cursor, None)
    return decls, templates


# Constructors and destructors come in variants (complete, base, deleting):
# compare them under one name.
def variant(name):
    return re.sub(r"(C[123]|D[012])(?=E?I?[^a-zA-Z0-9_]*$|E)", "CX", name)


def main():
    include_dir, exported_file, archive_file = sys.argv[1:4]
    decls, templates = collect(include_dir)
    exported = {l.strip() for l in open(exported_file) if l.strip()}
    defined = {l.strip() for l in open(archive_file) if l.strip()}
    exp_v = {variant(n) for n in exported}
    def_v = {variant(n) for n in defined}
    status = 0

    missing = sorted(where + " " + n for n, (v, where) in decls.items()
                     if v != "hidden" and variant(n) in def_v and variant(n) not in exp_v)
    if missing:
        status = 1
        print("FAIL: declared in a header, defined, but not exported (QVL_API missing?):")
        for m in missing:
            print("  " + m)

    declared_v = {variant(n) for n in decls}
    stray = []
    for n in sorted(exported):
        if not n.startswith("_Z"):
            continue  # C names: checked against the list of entry points
        if re.match(r"_ZT[VISIT]", n) or n.startswith("_ZTT"):
            continue  # class data, named after a class that has exported members
        target = re.sub(r"^_ZT(h|v)(n?\d+_)(n?\d+_)?", "_Z", n)  # a thunk: its function
        if variant(target) not in declared_v:
            stray.append(n)
    # an instantiation of a header's function template is the header's
    names = subprocess.run(["c++filt"], input="\n".join(stray), capture_output=True, text=True).stdout.split("\n")
    stray = [n for n, d in zip(stray, names) if not any(t + "<" in d for t in templates)]
    if stray:
        status = 1
        print("FAIL: exported but declared in no header (a source's helper marked QVL_API?):")
        for n in stray:
            print("  " + n)
    print("%s: %d declarations of the headers checked against %d exported names"
          % ("ok" if status == 0 else "failed", len(decls), len(exported)))
    return status


if __name__ == "__main__":
    sys.exit(main())
