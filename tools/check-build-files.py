#!/usr/bin/env python3
"""Checks that the device build (Android.bp) and the host build (CMake) make the same programs.

For the daemon and mlbdctl, the C++ sources that Android.bp lists (filegroups resolved) must be
the ones the configured host build compiles into the same binary (asked of ninja), the platform
glue aside: the device takes server/platform/PlatformDevice.cpp where the host takes
PlatformHost.cpp. Every unit test beside the code (server/**/*Test.cpp) must be in one of
Android.bp's cc_test modules too.

Usage: tools/check-build-files.py [BUILD_DIR]   (a configured CMake + Ninja build; default build)
Exit status 0 when both builds agree, 1 with one line per difference otherwise.
"""

import os
import re
import subprocess
import sys

TOKEN = re.compile(r'\s+|//[^\n]*|/\*.*?\*/|"(?:[^"\\]|\\.)*"|[A-Za-z_][A-Za-z0-9_]*|[{}\[\]:,=+]',
                   re.S)


def tokens(text):
    pos = 0
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if not m:
            raise ValueError("Android.bp: cannot read at offset %d: %r" % (pos, text[pos:pos + 20]))
        pos = m.end()
        tok = m.group(0)
        if tok.strip() and not tok.startswith('//') and not tok.startswith('/*'):
            yield tok


def parse_blueprint(text):
    """Returns [(module type, {property: value})]; values are str, bool, list or dict."""
    toks = list(tokens(text))
    pos = 0

    def take(expected=None):
        nonlocal pos
        tok = toks[pos]
        if expected is not None and tok != expected:
            raise ValueError("Android.bp: expected %r, found %r" % (expected, tok))
        pos += 1
        return tok

    def value():
        tok = take()
        if tok.startswith('"'):
            return tok[1:-1].encode().decode('unicode_escape')
        if tok in ('true', 'false'):
            return tok == 'true'
        if tok == '[':
            items = []
            while toks[pos] != ']':
                items.append(value())
                if toks[pos] == ',':
                    take(',')
            take(']')
            return items
        if tok == '{':
            return properties()
        raise ValueError("Android.bp: variables are not supported here (%r)" % tok)

    def properties():
        props = {}
        while toks[pos] != '}':
            name = take()
            take(':')
            props[name] = value()
            if toks[pos] == ',':
                take(',')
        take('}')
        return props

    modules = []
    while pos < len(toks):
        kind = take()
        take('{')
        modules.append((kind, properties()))
    return modules


def resolve(srcs, groups):
    out = set()
    for src in srcs:
        if src.startswith(':'):
            out |= resolve(groups[src[1:]], groups)
        else:
            out.add(src)
    return out


def ninja_sources(build_dir, target, top):
    listed = subprocess.run(['ninja', '-C', build_dir, '-t', 'inputs', target], check=True,
                            capture_output=True, text=True).stdout.split()
    out = set()
    for path in listed:
        full = os.path.realpath(os.path.join(build_dir, path))
        if full.endswith(('.cpp', '.cc', '.c')) and full.startswith(top + os.sep):
            out.add(os.path.relpath(full, top))
    return out


def main():
    top = os.path.realpath(os.path.join(os.path.dirname(__file__), '..'))
    build_dir = os.path.realpath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(top, 'build'))
    with open(os.path.join(top, 'Android.bp')) as f:
        modules = parse_blueprint(f.read())
    groups = {p['name']: p.get('srcs', []) for kind, p in modules if kind == 'filegroup'}
    by_name = {p['name']: (kind, p) for kind, p in modules if 'name' in p}
    problems = []

    glue = {'server/platform/PlatformDevice.cpp': 'server/platform/PlatformHost.cpp'}
    for binary in ('mlbd', 'mlbdctl'):
        device = {glue.get(s, s) for s in resolve(by_name[binary][1].get('srcs', []), groups)}
        host = ninja_sources(build_dir, binary, top)
        for src in sorted(device - host):
            problems.append('%s: %s is in Android.bp but not in the CMake build' % (binary, src))
        for src in sorted(host - device):
            problems.append('%s: %s is in the CMake build but not in Android.bp' % (binary, src))

    tested = set()
    for kind, props in modules:
        if kind == 'cc_test':
            tested |= resolve(props.get('srcs', []), groups)
    for root, _, files in os.walk(os.path.join(top, 'server')):
        for name in files:
            rel = os.path.relpath(os.path.join(root, name), top)
            if name.endswith('Test.cpp') and rel not in tested and 'PlatformTest' not in name:
                problems.append('%s: unit test missing from the cc_test modules of Android.bp' % rel)

    for line in problems:
        print('check-build-files: ' + line)
    if not problems:
        print('check-build-files: Android.bp and the CMake build make the same mlbd and mlbdctl')
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main())
