#!/usr/bin/python3
"""Writes a file for ninja that builds the modules of blueprints, into the working folder.

  android-bp.py BLUEPRINT...

It follows the rules of Soong by which a blueprint can be wrong: names of modules and properties, sources that
exist, headers that are seen only where they are exported, direct libraries only at the link, neither exceptions
nor RTTI unless asked for. The target `tests` runs each cc_test. Libraries without sources are the system's. The
parser is that of Debian's mini-soong, whose own Makefiles have no tests and no programs.
"""
import glob, os, re, sys
from mini_soong.model import Module
from mini_soong.parser import soong

KINDS = {"cc_binary", "cc_defaults", "cc_library_headers", "cc_library_shared", "cc_library_static", "cc_test"}
PATHS = {"srcs", "exclude_srcs", "local_include_dirs", "export_include_dirs"}
LIBS = ("shared_libs", "static_libs", "header_libs")
LISTS = {*PATHS, *LIBS, "export_shared_lib_headers", "export_header_lib_headers", "cflags", "cppflags", "defaults"}
SCALARS = {"name", "cpp_std", "rtti", "vendor", "compile_multilib"}
modules = {}


def fail(module, text):
    sys.exit(f"{module['file']}: {module['name']}: {text}")


def read(file):
    for parsed in soong.parseString(open(file).read(), parseAll=True):
        module = {"file": file, "kind": parsed.name, **parsed.arguments}
        module.pop("test_suites", None)
        for key in module.keys() - LISTS - SCALARS - {"file", "kind"}:
            fail(module, f"unknown property {key}")
        if parsed.name not in KINDS:
            fail(module, f"unknown kind {parsed.name}")
        for key in PATHS & module.keys():
            module[key] = [path for pattern in module[key] for path in paths(module, pattern)]
        if module["name"] in modules:
            fail(module, "another module has this name")
        modules[module["name"]] = module


def paths(module, pattern):
    pattern = os.path.join(os.path.dirname(os.path.abspath(module["file"])), pattern)
    return sorted(glob.glob(pattern)) or fail(module, f"no {pattern}")


def named(module, name, kinds):
    found = modules.get(name, {"kind": "none"})
    return found if found["kind"] in kinds else fail(module, f"no {' or '.join(kinds)} {name}")


def resolve(module):  # takes in its defaults
    for name in module.pop("defaults", []):
        for key, value in resolve(named(module, name, ["cc_defaults"])).items():
            if key in LISTS:
                module[key] = value + module.get(key, [])
            else:
                module.setdefault(key, value)
    if module["kind"] == "cc_test":
        module["shared_libs"] = ["libgtest_main", *module.get("shared_libs", [])]
    return module


def libraries(module, properties=LIBS):
    kind = {"shared_libs": "cc_library_shared", "static_libs": "cc_library_static", "header_libs": "cc_library_headers"}
    return [named(module, name, [kind[key]]) for key in properties for name in module.get(key, [])]


def exports(module):
    folders = module.get("export_include_dirs", [])
    for key in ("shared", "header"):
        for name in module.get(f"export_{key}_lib_headers", []):
            if name not in module.get(f"{key}_libs", []):
                fail(module, f"{name} is exported, but not in {key}_libs")
            folders = folders + exports(modules[name])
    return folders


def escaped(flag):
    return re.sub(r"\\(.)", r"\1", flag).replace("$", "$$")


def build(module):
    folders = module.get("local_include_dirs", []) + exports(module)
    for library in libraries(module) + [modules["liblog"]]:  # of which the NDK has the headers
        folders = folders + exports(library)
    flags = [f"-std={module.get('cpp_std', 'gnu++17')}", "-fPIC", "-fno-exceptions",
             "-frtti" if module.get("rtti") else "-fno-rtti"]
    flags += [f"'{escaped(flag)}'" for flag in module.get("cflags", []) + module.get("cppflags", [])]
    flags += [f"-I{folder}" for folder in dict.fromkeys(folders)]
    objects = []
    for source in (path for path in module["srcs"] if path not in module.get("exclude_srcs", [])):
        objects.append(f"{module['name']}.o/{source.strip('/').replace('/', '_')}.o")
        print(f"build {objects[-1]}: cxx {source}\n  flags = {' '.join(flags)}")
    linked, system = [], []
    for library in libraries(module, LIBS[:2]):
        name = library["name"]
        (linked.append(f"{name}.so") if "srcs" in library else system.append(f"-l{name[3:]}"))
    shared = module["kind"] == "cc_library_shared"
    output = module["name"] + (".so" if shared else "")
    print(f"build {output}: link {' '.join(objects)} | {' '.join(linked)}\n"
          f"  flags = {'-shared -Wl,-soname,' + output if shared else ''}\n"
          f"  libs = {' '.join('./' + file for file in linked)} {' '.join(system)}")
    if module["kind"] == "cc_test":
        print(f"build run-{output}: run {output}")


for blueprint in sys.argv[1:]:
    read(blueprint)
ccache = "ccache " if os.path.exists("/usr/bin/ccache") else ""
sys.stdout = open("build.ninja", "w")
print(f"rule cxx\n  command = {ccache}clang++ $flags -MMD -MF $out.d -c $in -o $out\n  depfile = $out.d\n  description = $out\n"
      "rule link\n  command = clang++ -Wl,--no-undefined -Wl,-rpath-link,. -Wl,-rpath,'$$ORIGIN' $flags $in -o $out $libs\n  description = $out\n"
      "rule run\n  command = ./$in\n  pool = console")
for each in [resolve(module) for module in modules.values() if module["kind"] != "cc_defaults"]:
    if "srcs" in each:
        build(each)
tests = [f"run-{each['name']}" for each in modules.values() if each["kind"] == "cc_test"]
print("build tests: phony", *tests)
print("default", *(each["name"] + (".so" if each["kind"] == "cc_library_shared" else "")
                   for each in modules.values() if "srcs" in each))
