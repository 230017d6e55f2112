"""The rows of what users wait for: vxrun beside the best programs that do the same."""
import json
import pathlib
import re
import shutil
import statistics
import subprocess
import sys

from measure import ROOT, execute

OWN = "vxrun"
FLUSTER = "Fluster"
LIBRARIES = "its libraries alone"
FFMPEG = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
NOISE = ",noise=alls=12:allf=t"

ENCODERS = {  # by codec: what is fast enough to make clips with, and GStreamer's elements
    "H.264": ("libx264 -preset veryfast", "h264parse ! avdec_h264"),
    "HEVC": ("libx265 -preset ultrafast -x265-params log-level=error", "h265parse ! avdec_h265"),
    "VP9": ("libvpx-vp9 -deadline realtime -cpu-used 8 -row-mt 1", "vp9parse ! avdec_vp9"),
    "AV1": ("libsvtav1 -preset 10", "av1parse ! av1dec"),
}
CLIPS = [  # codec, size, bits, Mbit/s, frames: a run takes about a second
    ("H.264", "352x288", 8, 0.3, 3000),
    ("H.264", "1920x1080", 8, 2, 240),
    ("H.264", "1920x1080", 8, 40, 40),
    ("H.264", "3840x2160", 8, 8, 60),
    ("HEVC", "1280x720", 8, 1, 400),
    ("HEVC", "1920x1080", 10, 30, 30),
    ("HEVC", "3840x2160", 10, 8, 30),
    ("VP9", "1280x720", 8, 1, 400),
    ("VP9", "1920x1080", 8, 30, 60),
    ("AV1", "1920x1080", 8, 2, 200),
    ("AV1", "1280x720", 10, 10, 80),
]
SMOKE_CLIPS = [("H.264", "352x288", 8, 0.3, 20), ("HEVC", "352x288", 10, 0.3, 10)]


def rows(bench):
    checksums(bench)
    raw(bench)
    suite(bench)
    length(bench)


def vxrun(bench, *words):
    return [bench.args.build / "apps/vxrun/vxrun", *words]


def made(path, make):
    """`path`, which make(part) has written, now or in an earlier comparison."""
    if not path.exists():
        path.parent.mkdir(parents=True, exist_ok=True)
        part = path.with_name(f"part.{path.name}")
        make(part)
        part.rename(path)
    return path


def source(size, frames, extra=""):
    return ["-f", "lavfi", "-i", f"testsrc2=size={size}:rate=30{extra}", "-frames:v", frames]


def encode(codec, size, bits, rate, frames):
    """What makes a clip. At a high bit rate it has the noise that one needs."""
    pixels = float(size.split("x")[0]) * float(size.split("x")[1])
    extra = NOISE if rate * 1e6 / 30 / pixels > 0.25 else ""
    words = ["env", "SVT_LOG=1", *FFMPEG, *source(size, frames, extra), "-c:v", *ENCODERS[codec][0].split(),
             "-b:v", f"{rate}M", "-pix_fmt", "yuv420p" if bits == 8 else f"yuv420p{bits}le"]
    return lambda part: execute([*words, part])


# ---- Checksums of decoded pictures --------------------------------------------------------------

def checksums(bench):
    for codec, size, bits, rate, frames in SMOKE_CLIPS if bench.args.smoke else CLIPS:
        title = f"framemd5 of {codec}, {size}, {bits} bits, {rate} Mbit/s"
        if not bench.selected(title):
            continue
        frames = bench.sized(frames, frames // 2, frames)
        clip = made(bench.out / f"clips/{codec}-{size}-{bits}-{rate}-{frames}.mp4", encode(codec, size, bits, rate, frames))
        expected = made(clip.with_suffix(".framemd5"), lambda part: execute([*FFMPEG, "-i", clip, "-an", "-f", "framemd5", part]))
        decode = vxrun(bench, ROOT / "apps/vxrun/graphs/decode.json", "--set", f"reader.file={clip}",
                       "--set", f"check.expect={expected}")  # fails when one checksum differs
        commands = {OWN: [*decode, "--quiet"],
                    "ffmpeg": [*FFMPEG, "-i", clip, "-an", "-f", "framemd5", bench.out / "written.framemd5"]}
        if bench.program("libav"):
            commands[LIBRARIES] = [bench.program("libav"), clip, 0]
        if shutil.which("gst-launch-1.0"):
            commands["GStreamer"] = ["gst-launch-1.0", "-m", *f"filesrc location={clip} ! qtdemux ! {ENCODERS[codec][1]}"
                                     " ! videocodectestsink".split()]
        else:
            bench.missing.add("gst-launch-1.0")
        share = check_peers(commands, clip, expected)
        values = bench.measure(title, commands, ["seconds", "processor", "rss"])
        bench.add(title, "ns", in_ns(values["seconds"]),
                  [("ffmpeg", "times", 1.3 if share > 25 else 1.05), ("GStreamer", "times", 1.3), (LIBRARIES, "times", 1)],
                  note=f", MD5 {share:.0f} %" if share else "")

        # A picture has as many bytes as the list has it.
        picture = int(expected.read_text().splitlines()[-1].split(",")[4])
        stats = subprocess.run(list(map(str, [*decode, "--stats"])), capture_output=True, text=True, check=True).stderr
        pool = int(re.search(r"pool of 'decoder': made=(\d+)", stats)[1]) * picture / 1024
        bench.add(f"peak memory, its pool left out: {title}", "KiB",
                  {OWN: [rss - pool for rss in values["rss"][OWN]], "ffmpeg": values["rss"]["ffmpeg"]},
                  [("ffmpeg", "time", 1)], bars=False)
        graph_share(bench, statistics.median(values["processor"][OWN]) / frames, codec, size, rate)


def in_ns(seconds):
    return {label: [s * 1e9 for s in all_] for label, all_ in seconds.items()}


def check_peers(commands, clip, expected):
    """Fails when a peer's checksums are not ffmpeg's. Returns the percentage of MD5 in the work, else 0."""
    wanted = [line.split(", ")[-1].strip() for line in expected.read_text().splitlines() if line[0] != "#"]
    share = 0
    if LIBRARIES in commands:
        result = execute(commands[LIBRARIES])
        share = result["md5_percent"]
        if re.findall(r"^[0-9a-f]{32}$", result["output"], re.MULTILINE) != wanted:
            sys.exit(f"{clip}: the bare libraries' checksums are not ffmpeg's")
    if "GStreamer" in commands:
        stream = execute([*FFMPEG, "-i", clip, "-an", "-f", "md5", "-"])["output"].strip().removeprefix("MD5=")
        if stream not in execute(commands["GStreamer"])["output"]:
            sys.exit(f"{clip}: GStreamer's checksum is not ffmpeg's")
    return share


def graph_share(bench, seconds, codec, size, rate):
    """How much of vxrun's processor time per frame the graph takes, of one clip."""
    if (codec, size, rate) != ("H.264", "1920x1080", 2):
        return
    title = "graph's share of vxrun's processor time, %"
    paced = bench.measure(title, {OWN: bench.peer("vxbase paced n=3")}, ["cpu_ns_per_item"])["cpu_ns_per_item"][OWN]
    bench.add(title, "", {OWN: [100 * ns / (seconds * 1e9) for ns in paced]}, [(None, "is", 2)], bars=False)


# ---- Raw pictures -------------------------------------------------------------------------------

def raw(bench):
    for bits, frames in (8, 90), (10, 45):
        size, frames = bench.sized(("1920x1080", frames), ("1920x1080", frames // 4), ("352x288", 10))
        names = [f"{what}, {size}, {bits} bits" for what in ("PSNR", "SSIM", "exact comparison")]
        if not any(map(bench.selected, names)):
            continue
        form = "yuv420p" if bits == 8 else f"yuv420p{bits}le"
        def y4m(name, extra):
            words = [*FFMPEG, *source(size, frames, extra), "-pix_fmt", form, "-strict", "-1"]
            return made(bench.out / f"clips/{name}-{size}-{bits}-{frames}.y4m", lambda part: execute([*words, part]))
        wanted, noisy = y4m("plain", ""), y4m("noisy", NOISE)
        # A file of its own: cmp does not read one file twice.
        same = made(wanted.with_name(f"same-{wanted.name}"), lambda part: shutil.copyfile(wanted, part))
        def compare(title, got, check, peer, command, kind, limit):
            if not bench.selected(title):
                return
            own = vxrun(bench, pathlib.Path(__file__).with_name("raw.json"), "--quiet", "--set", f"got.file={got}",
                        "--set", f"wanted.file={wanted}", *check)
            values = bench.measure(title, {OWN: own, peer: command}, ["seconds"])
            bench.add(title, "ns", in_ns(values["seconds"]), [(peer, kind, limit)])
        def metric(name):
            return [*FFMPEG, "-i", noisy, "-i", wanted, "-lavfi", name, "-f", "null", "-"]
        compare(names[0], noisy, ["--set", "compare.psnr=20"], "ffmpeg", metric("psnr"), "times", 1)
        compare(names[1], noisy, ["--set", "compare.ssim=0.1"], "ffmpeg", metric("ssim"), "time", 1.3)
        compare(names[2], same, [], "cmp", ["cmp", same, wanted], "time", 2)


# ---- Suites -------------------------------------------------------------------------------------

def suite(bench):
    count = bench.sized(60, 60, 4)
    title = f"suite of {count} vectors of H.264, 352x288, 2 at once"
    if not bench.selected(title):
        return
    name = f"SMALL{count}"
    folder = made(bench.out / f"clips/{name}", lambda part: make_suite(part, name, count))
    file, vectors = folder / f"suites/{name}.json", folder / name
    commands = {OWN: vxrun(bench, "suite", file, "--resources", folder, "--jobs", 2, "--quiet"),
                "xargs -P2 ffmpeg": ["sh", "-c", 'ls "$0"/*/*.264 | xargs -P2 -I{} "$@"', vectors, *FFMPEG,
                                     "-i", "{}", "-an", "-f", "md5", "{}.md5"]}
    fluster = ROOT.parent / "shared/fluster"
    if fluster.exists():
        commands[FLUSTER] = [sys.executable, "-B", fluster / "fluster.py", "-ne", "-r", folder, "-o", folder / "out",
                               "-tsd", folder / "suites", "run", "-ts", name, "-d", "FFmpeg-H.264", "-j", 2]
    else:
        bench.missing.add(FLUSTER)
    values = bench.measure(title, commands, ["seconds"])
    bench.add(title, "ns", in_ns(values["seconds"]), [("xargs -P2 ffmpeg", "times", 2), (FLUSTER, "times", 3)])


def make_suite(folder, name, count):
    """A second of a clip for each vector, and the suite file that vxrun and Fluster read."""
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "suites").mkdir(parents=True)
    execute([*FFMPEG, *source("352x288", 30 * count), "-c:v", "libx264", "-preset", "veryfast", "-g", 30, "-bsf:v", "dump_extra",
             "-pix_fmt", "yuv420p", "-f", "segment", "-segment_time", 1, "-segment_format", "h264", folder / "v%02d.264"])
    vectors = []
    for file in sorted(folder.glob("*.264")):
        pictures = execute([*FFMPEG, "-i", file, "-an", "-f", "md5", "-"])["output"].strip().removeprefix("MD5=")
        vectors.append({"name": file.stem, "source": f"https://example.org/{file.stem}.zip", "source_checksum": "__skip__",
                        "input_file": file.name, "output_format": "yuv420p", "result": pictures})
        vector = folder / name / file.stem
        vector.mkdir(parents=True)
        file.rename(vector / file.name)
    if len(vectors) != count:
        sys.exit(f"{len(vectors)} vectors were made, not {count}")
    (folder / f"suites/{name}.json").write_text(json.dumps(
        {"name": name, "codec": "H.264", "description": "a second each", "test_vectors": vectors}))


# ---- Length -------------------------------------------------------------------------------------

def length(bench):
    many = bench.sized(100_000, 10_000, 1_000)
    title = "peak memory of a long stream"
    if not bench.selected(title):
        return
    part = many // 10
    short = made(bench.out / f"clips/long-{part}.mkv", encode("H.264", "64x64", 8, 0.1, part))
    long = made(bench.out / f"clips/long-{many}.mkv", lambda file: execute(
        [*FFMPEG, "-stream_loop", 9, "-i", short, "-c", "copy", file]))
    labels = {f"{many:,} frames": long, f"{part:,} frames": short}
    values = bench.measure(title, {label: vxrun(bench, "decode", clip, "--quiet") for label, clip in labels.items()}, ["rss"])
    bench.add(title, "KiB", values["rss"], [(f"{part:,} frames", "time", 1.05)], bars=False)
