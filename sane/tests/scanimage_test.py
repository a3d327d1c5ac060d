#!/usr/bin/env python3
"""SANE's own tools against the backend: scanimage lists, describes, checks
and scans the virtual scanners; a scanned page must equal, pixel for pixel,
the same page saved by mcicmd.

usage: scanimage_test.py BUILD_DIR CASE [ARGS...]
"""
import atexit
import os
import shutil
import signal
import subprocess
import sys
import tempfile

from PIL import Image

BUILD = sys.argv[1]
WORK = tempfile.mkdtemp(prefix="tamrix-sane-")
atexit.register(shutil.rmtree, WORK, True)


def env(conf_lines):
    """Environment of a frontend that loads the backend from the build tree."""
    confdir = os.path.join(WORK, "conf")
    os.makedirs(confdir, exist_ok=True)
    if conf_lines is not None:
        with open(os.path.join(confdir, "tamrix.conf"), "w") as f:
            f.write("\n".join(conf_lines) + "\n")
    e = dict(os.environ)
    e.update(LD_LIBRARY_PATH=os.path.join(BUILD, "sane"), SANE_CONFIG_DIR=confdir,
             TAMRIX_WINDIR=os.path.join(WORK, "windir"), TAMRIX_MODULE_PATH=os.path.join(BUILD, "lib"))
    return e


def scanimage(args, conf_lines=None, check=True):
    r = subprocess.run(["scanimage"] + args, env=env(conf_lines), capture_output=True, timeout=240)
    if check and r.returncode != 0:
        sys.exit("scanimage %s failed (%d):\n%s" % (" ".join(args), r.returncode, r.stderr.decode(errors="replace")))
    return r


def expect(condition, what, output=b""):
    if not condition:
        sys.exit("FAILED: %s\n%s" % (what, output.decode(errors="replace") if isinstance(output, bytes) else output))


CONF = ["# scanners of the tests", "ks-650:rs232c:1 virtual", "ks-620:gpib:5 virtual", "ks-640:scsi virtual",
        "ks-630:rs232c:2 virtual  # three passes in colour", "kt-700:gpib:3 virtual", "ks-999 virtual",
        "ks-630:scsi virtual"]


def case_list():
    out = scanimage(["-L"], CONF).stdout
    for name, model in (("ks-650:rs232c:1", "KS-650"), ("ks-620:gpib:5", "KS-620"), ("ks-640:scsi", "KS-640"),
                        ("ks-630:rs232c:2", "KS-630")):
        expect(("device `tamrix:%s' is a Korvane %s flatbed scanner" % (name, model)).encode() in out,
               "scanimage -L lists %s" % name, out)
    expect(out.count(b"tamrix:") == 4, "the lines the driver cannot serve are left out", out)
    # Without tamrix.conf a new user still sees one scanner.
    os.remove(os.path.join(WORK, "conf", "tamrix.conf"))
    out = scanimage(["-L"], None).stdout
    expect(out.count(b"tamrix:") == 1 and b"tamrix:ks-650:rs232c:1' is a Korvane KS-650" in out,
           "one virtual KS-650 without tamrix.conf", out)


def case_options():
    out = scanimage(["-d", "tamrix:ks-640:scsi", "-A"], CONF).stdout.decode()
    for text in ("--mode Lineart|Halftone|Gray|Color [Gray]", "--depth 2|3|4|5|6|7|8bit [8]",
                 "--resolution 5..320dpi (in steps of 1) [90]", "-l 2.60001..200.6mm [2.60001]",
                 "-y 0..296.6mm [296.6]", "--halftone-pattern Dither 1, pattern 1|", "--brightness 0..9 (in steps of 1) [5]",
                 "--contrast 0..9 (in steps of 1) [5]", "--gamma-correction CRT 1|CRT 2|Printer 1|Printer 2|None",
                 "--tint 0..9 (in steps of 1) [inactive]", "--saturation 0..9 (in steps of 1) [inactive]", "--noise-reduction[=(yes|no)] [no]"):
        expect(text in out, "scanimage -A shows %r" % text, out)
    # Colour opens tint and saturation and widens the depths; a KS-610 has
    # neither grey levels nor the extended settings.
    out = scanimage(["-d", "tamrix:ks-640:scsi", "--mode", "Color", "-A"], CONF).stdout.decode()
    expect("--tint 0..9 (in steps of 1) [5]" in out and "--depth 1|2|3|4|5|6|7|8bit [8]" in out, "colour options", out)
    out = scanimage(["-d", "tamrix:ks-610:rs232c:2", "-A"], CONF + ["ks-610:rs232c:2 virtual"]).stdout.decode()
    expect("--mode Lineart|Halftone [Lineart]" in out and "--brightness 0..9 (in steps of 1) [inactive]" in out and
           "--resolution 50..320dpi (in steps of 10)" in out, "KS-610 options", out)
    # A value the model refuses is refused, not rounded.
    r = scanimage(["-d", "tamrix:ks-620:gpib:5", "--resolution", "95", "-n"], CONF, check=False)
    expect(r.returncode != 0 and b"Invalid argument" in r.stderr, "resolution 95 on a KS-620", r.stderr)


def case_conformance(spec):
    r = scanimage(["-d", "tamrix:" + spec, "-T"], CONF)
    expect(r.stderr.count(b"PASS") >= 20 and b"FAIL" not in r.stderr, "scanimage -T passes", r.stderr)


def case_page(spec, mode, resolution, depth, conf=CONF, windir=None, size=(2, 3)):
    """The same rectangle through scanimage and through mcicmd."""
    res = int(resolution)
    # 25.4 mm is `res` dots; the rectangle starts 10.16 mm in.
    x, y, w, h = res * 4 // 10, res * 4 // 10, int(res * size[0]), int(res * size[1])
    args = ["-d", "tamrix:" + spec, "--mode", mode, "--resolution", resolution, "-l", "%.4f" % (x * 25.4 / res),
            "-t", "%.4f" % (y * 25.4 / res), "-x", "%.4f" % (w * 25.4 / res), "-y", "%.4f" % (h * 25.4 / res),
            "--format=png", "-o", os.path.join(WORK, "sane.png")]
    if depth != "-":
        args += ["--depth", depth]
    r = subprocess.run(["scanimage"] + args, env=dict(env(conf), **({"TAMRIX_WINDIR": windir} if windir else {})),
                       capture_output=True, timeout=240)
    expect(r.returncode == 0, "scanimage scan", r.stderr)

    colorstep = "halftone" if mode == "Halftone" else "colorstep %d" % (2 ** (int(depth) if depth != "-" else 1))
    colormode = 16386 if mode == "Color" else 16385
    bmp = os.path.join(WORK, "mcicmd.bmp")
    mcicmd = [os.path.join(BUILD, "bin", "mcicmd"), "--windir", os.path.join(WORK, "mci"), "--install",
              "--scanner", spec, "open scanner alias s wait",
              "scanmode s resolution %d contrast 5 colormode %d %s wait" % (res, colormode, colorstep),
              "scanread s rect %d %d %d %d wait" % (x, y, w, h), "save s %s wait" % bmp, "close s wait"]
    r = subprocess.run(mcicmd, env=dict(os.environ, TAMRIX_MODULE_PATH=os.path.join(BUILD, "lib")),
                       capture_output=True, timeout=240)
    expect(r.returncode == 0, "mcicmd scan", r.stderr)

    sane, ref = Image.open(os.path.join(WORK, "sane.png")), Image.open(bmp)
    expect(sane.size == ref.size == (w, h), "sizes %s %s, expected %s" % (sane.size, ref.size, (w, h)))
    a, b = sane.convert("RGB").tobytes(), ref.convert("RGB").tobytes()
    diff = sum(1 for i in range(0, len(a), 3) if a[i:i + 3] != b[i:i + 3])
    expect(diff == 0, "%d of %d pixels differ" % (diff, w * h))
    # A blank page would match a blank page: the chart must show.
    expect(len(set(ref.convert("L").getdata())) > 1, "the page shows the chart")
    print("%s %s %s dpi: %dx%d, %d colours, identical" % (spec, mode, resolution, w, h,
                                                          len(set(ref.convert("RGB").getdata()))))


def case_interrupt():
    """Ctrl-C in scanimage calls sane_cancel from its signal handler: the scan
    stops (MCI stop) and scanimage ends with "cancelled" well before the page."""
    p = subprocess.Popen(["scanimage", "-d", "tamrix:ks-650:rs232c:1", "--mode", "Color", "--resolution", "480",
                          "-o", os.path.join(WORK, "big.pnm")], env=dict(env(CONF), SANE_DEBUG_TAMRIX="3"),
                         stderr=subprocess.PIPE)
    seen = b""
    while b"scanread" not in seen:
        line = p.stderr.readline()
        expect(line, "scanimage starts the scan", seen)
        seen += line
    p.send_signal(signal.SIGINT)
    seen += p.communicate(timeout=120)[1]
    expect(p.returncode != 0 and b"sane_read: Operation was cancelled" in seen, "scanimage cancelled", seen)
    expect(b"cancel: stopping the scan" in seen and b"the scan failed" not in seen, "MCI stop sent", seen)


def case_tty():
    """A scanner configured without "virtual" on COM1, whose dosdevices link
    names a pty that tamrix-scanner serves in real time: the same page."""
    windir = os.path.join(WORK, "ttywin")
    os.makedirs(os.path.join(windir, "dosdevices"))
    server = subprocess.Popen([os.path.join(BUILD, "bin", "tamrix-scanner"), "--model", "2"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        pty = server.stdout.readline().decode().strip()
        expect(pty.startswith("/dev/"), "tamrix-scanner names its pty", pty)
        os.symlink(pty, os.path.join(windir, "dosdevices", "com1"))
        case_page("ks-620:rs232c:1", "Lineart", "90", "-", conf=["ks-620:rs232c:1"], windir=windir, size=(1, 5))
    finally:
        server.terminate()
        server.wait()


def case_installed(cmake):
    """cmake --install into a staging folder; SANE's dll backend finds the
    backend through dll.d and scanimage -d tamrix passes its test."""
    stage = os.path.join(WORK, "stage")
    r = subprocess.run([cmake, "--install", BUILD], env=dict(os.environ, DESTDIR=stage), capture_output=True)
    expect(r.returncode == 0, "cmake --install", r.stdout + r.stderr)
    found = {}
    for root, _, files in os.walk(stage):
        for f in files:
            found[f] = root
    for f in ("libsane-tamrix.so.1", "tamrix", "tamrix.conf", "tamrix.so", "libtamrixwin.so"):
        expect(f in found, "%s installed" % f, repr(found))
    expect(found["tamrix"].endswith("/dll.d") and found["libsane-tamrix.so.1"].endswith("/sane"),
           "backend in SANE's folder, tamrix in dll.d", repr(found))
    e = {k: v for k, v in os.environ.items() if not k.startswith(("TAMRIX_MODULE", "LD_LIBRARY"))}
    e.update(SANE_CONFIG_DIR=os.path.dirname(found["tamrix"]), LD_LIBRARY_PATH=found["libsane-tamrix.so.1"],
             TAMRIX_WINDIR=os.path.join(WORK, "windir"))
    r = subprocess.run(["scanimage", "-L"], env=e, capture_output=True, timeout=60)
    expect(b"device `tamrix:ks-650:rs232c:1' is a Korvane KS-650 flatbed scanner" in r.stdout,
           "the dll backend lists the installed scanner", r.stdout + r.stderr)
    r = subprocess.run(["scanimage", "-d", "tamrix", "-T"], env=e, capture_output=True, timeout=240)
    expect(r.returncode == 0 and r.stderr.count(b"PASS") >= 20 and b"FAIL" not in r.stderr,
           "scanimage -d tamrix -T through the dll backend", r.stderr)


if __name__ == "__main__":
    {"list": case_list, "options": case_options, "conformance": case_conformance, "page": case_page,
     "installed": case_installed, "interrupt": case_interrupt, "tty": case_tty}[sys.argv[2]](
        *sys.argv[3:])
