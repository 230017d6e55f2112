#!/usr/bin/env python3
"""Runs Fluster with vxrun among its decoders: those called vxrun-CODEC.

  vxrun.py FLUSTER_DIR run -ts JVT-AVC_V1 -d vxrun-H.264

FLUSTER_DIR holds the package fluster. VXRUN is the program, default vxrun; VXRUN_DECODER is what its
option --decoder gets, default libavcodec. Copied into fluster/decoders, this file works as well.
"""
import os
import subprocess
import sys

if __name__ == "__main__":
    if len(sys.argv) < 2 or not os.path.isdir(os.path.join(sys.argv[1], "fluster")):
        sys.exit(__doc__)
    sys.path.insert(0, sys.argv.pop(1))

from fluster.codec import Codec, OutputFormat
from fluster.decoder import Decoder, NotSupportedError, register_decoder

NOT_SUPPORTED = 69  # EX_UNAVAILABLE, vxrun decode's exit code
NAMES = {
    Codec.H264: "h264",
    Codec.H265: "hevc",
    Codec.VP8: "vp8",
    Codec.VP9: "vp9",
    Codec.AV1: "av1",
    Codec.MPEG2_VIDEO: "mpeg2video",
    Codec.MPEG4_VIDEO: "mpeg4",
}


class VxrunDecoder(Decoder):
    """One codec, decoded by vxrun"""

    binary = os.environ.get("VXRUN", "vxrun")

    def __init__(self):
        super().__init__()
        self.name = f"vxrun-{self.codec.value}"
        self.description = f"{self.codec.value} decoder of vxrun"

    def decode(self, input_filepath, output_filepath, output_format, timeout, verbose, keep_files,
               optional_params=None):
        command = [self.binary, "decode", input_filepath, "-o", output_filepath, "--md5",
                   "--codec", NAMES[self.codec], "--log", "0"]
        if output_format not in (OutputFormat.NONE, OutputFormat.UNKNOWN):
            command += ["--format", output_format.value]
        if "VXRUN_DECODER" in os.environ:
            command += ["--decoder", os.environ["VXRUN_DECODER"]]
        ended = subprocess.run(command, stdout=subprocess.PIPE, timeout=timeout, text=True,
                               stderr=None if verbose else subprocess.DEVNULL, check=False)
        if ended.returncode == NOT_SUPPORTED:
            raise NotSupportedError()
        ended.check_returncode()
        return ended.stdout.split()[-1]


for codec in NAMES:  # as attributes of this module, so that Fluster's processes find them
    name = f"Vxrun{codec.name}"
    globals()[name] = type(name, (VxrunDecoder,), {"codec": codec, "__module__": __name__})
    register_decoder(globals()[name])

if __name__ == "__main__":
    from fluster.main import fluster_main

    fluster_main()
