"""python3 -m krx vtu IN.krx OUT.vtu [--modes 7,8] | plot IN.krx --mode 7 -o mode7.png
[--scale S] | html IN.krx -o OUT.html | info IN.krx"""

import argparse
import os
import sys

import numpy as np

from ._reader import KrxError, read


def _info(f, out):
    kind = "XDR" if f.xdr else "native"
    precision = "single" if f.single else "double"
    print(f"{f.path}: version code {f.version_code} (generation {f.generation / 10.0:.1f}, "
          f"{kind}, {precision} precision)", file=out)
    h = f.header
    print(f"  title: {h['title']}\n  date: {h['date']}\n  input: {h['input_name']} "
          f"({h['input_type']})", file=out)
    for c in h["comments"]:
        if c:
            print(f"  comment: {c}", file=out)
    counts = [("nodes", f.node_ids), ("modes", f.mode_numbers), ("faces", f.faces),
              ("interface nodes", f.interface_nodes)]
    print("  " + ", ".join(f"{len(v) if v is not None else 0} {name}" for name, v in counts),
          file=out)
    if f.stress is not None:
        print(f"  modal stresses at {len(f.stress[0])} nodes", file=out)
    if f.strain is not None:
        print(f"  modal strains at {len(f.strain[0])} nodes", file=out)
    if f.units is not None:
        print("  units: " + ", ".join(f"{w} {u}" for w, u in
                                      zip(("mass", "length", "time", "force"), f.units)), file=out)
    print("  blocks: " + " ".join(str(b) for b in f.blocks), file=out)
    if f.hertz is not None:
        print(f"  {'mode':>6} {'eigenvalue':>16} {'Hz':>16} {'gen. mass':>12}", file=out)
        for row in zip(f.mode_numbers, f.eigenvalues, f.hertz, f.gen_mass):
            print(f"  {row[0]:6d} {row[1]:16.8e} {row[2]:16.8e} {row[3]:12.5e}", file=out)


def _mode_list(text):
    try:
        return [int(m) for m in text.split(",") if m.strip()]
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a list of mode numbers: {text}") from None


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m krx", description="Look at a KRX file.")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("vtu", help="write the mesh and the mode vectors as a .vtu file")
    p.add_argument("krx")
    p.add_argument("vtu")
    p.add_argument("--modes", type=_mode_list, help="mode numbers, e.g. 7,8 (default: all)")
    p = sub.add_parser("plot", help="draw one mode undeformed and deformed into a picture")
    p.add_argument("krx")
    p.add_argument("--mode", type=int, required=True)
    p.add_argument("-o", "--output", required=True)
    p.add_argument("--scale", type=float, help="displacement scale (default: largest "
                   "displacement a tenth of the body's size)")
    p = sub.add_parser("html", help="write a page that animates the modes in a browser")
    p.add_argument("krx")
    p.add_argument("-o", "--output", required=True)
    p = sub.add_parser("info", help="print a one-screen summary")
    p.add_argument("krx")
    args = parser.parse_args(argv)
    try:
        f = read(args.krx)
        if args.command == "info":
            _info(f, sys.stdout)
        elif args.command == "vtu":
            from ._mesh import to_meshio
            mesh = to_meshio(f, args.modes)
            mesh.write(args.vtu, file_format="vtu")
            print(f"wrote {args.vtu}: {len(mesh.points)} points, "
                  f"{sum(len(c.data) for c in mesh.cells)} cells, "
                  f"{sum(k.startswith('mode_') for k in mesh.point_data)} modes")
        elif args.command == "html":
            from ._html import write_page
            meta = write_page(f, args.output)
            print(f"wrote {args.output}: {meta['mode_count']} modes, {meta['shown_nodes']} "
                  f"nodes shown, {meta['triangles']} triangles, {meta['lines']} lines")
        else:
            from ._plot import plot_mode
            scale = plot_mode(f, args.mode, args.output, args.scale)
            print(f"wrote {args.output}: mode {args.mode}, scale {scale:.6g}")
        sys.stdout.flush()
    except BrokenPipeError:
        # The reader of the output has gone (| head): end quietly, like any shell tool. What
        # is still buffered goes nowhere, so that the flush at exit does not fail again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except (KrxError, ValueError, OSError) as e:
        print(f"krx: error: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    np.set_printoptions(suppress=True)
    sys.exit(main())
