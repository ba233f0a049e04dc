#!/usr/bin/env python3
"""Writes the files in data/ with libraries that know nothing of this project.

Debian packages: python3-fabio python3-h5py python3-mrcfile python3-tifffile bitshuffle. The files are kept, so that
the tests do not need these. Pixel i of frame f is 100 f + 3 i + 1, frames are 5 wide and 4 high.
"""
import bz2
import gzip
import json
import os
import zlib

import fabio.cbfimage
import h5py
import mrcfile
import numpy as np
import tifffile

WIDTH, HEIGHT, FRAMES = 5, 4, 3
FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")


def stack(dtype):
    frames = np.arange(FRAMES)[:, None] * 100 + np.arange(WIDTH * HEIGHT)[None, :] * 3 + 1
    return frames.reshape(FRAMES, HEIGHT, WIDTH).astype(dtype)


def path(name):
    return os.path.join(FOLDER, name)


def write_tiff():
    tifffile.imwrite(path("uint32.tif"), stack("u4"), photometric="minisblack")
    tifffile.imwrite(path("float64_big_endian.tif"), stack("f8"), photometric="minisblack", byteorder=">")
    tifffile.imwrite(path("deflate_bigtiff.tif"), stack("i2"), photometric="minisblack", compression="zlib",
                     bigtiff=True)
    tifffile.imwrite(path("tiled.tif"), stack("u2"), photometric="minisblack", tile=(16, 16))
    tifffile.imwrite(path("strips.tif"), stack("u2"), photometric="miniswhite", rowsperstrip=3)


def write_mrc():
    for name, dtype in (("half.mrc", "f2"), ("uint16.mrc", "u2")):
        with mrcfile.new(path(name), overwrite=True) as mrc:
            mrc.set_data(stack(dtype))


def write_cbf():
    pixels = stack("i4")[1]
    pixels[0, 1] = -2
    pixels[1, 0] = 70000  # differences of four bytes, and then of two
    pixels[2, 2] = 1000
    comments = ["Detector: EIGER", "Pixel_size 75e-6 m x 75e-6 m", "Exposure_time 0.0950 s",
                "Wavelength 0.0251 A", "Detector_distance 0.8 m", "Start_angle -1.0000 deg.",
                "Angle_increment 0.5000 deg."]
    image = fabio.cbfimage.CbfImage(data=pixels, header={
        "_array_data.header_convention": "PILATUS_1.2",
        "_array_data.header_contents": "\r\n".join("# " + line for line in comments)})
    image.write(path("frame.cbf"))


def write_nexus():
    """A master whose frames lie in two other files, as counting detectors write them."""
    counts = stack("u4")
    counts[0, 1, 1] = 2**32 - 1
    for number, frames in ((1, counts[:2]), (2, counts[2:])):
        with h5py.File(path(f"nexus_data_{number:06d}.h5"), "w") as file:
            file.create_dataset("entry/data/data", data=frames, chunks=(1, HEIGHT, WIDTH), compression=32008,
                                compression_opts=(0, 2))
    with h5py.File(path("nexus_master.h5"), "w") as file:
        def group(name, kind):
            made = file.create_group(name)
            made.attrs["NX_class"] = np.bytes_(kind)  # of fixed length, without a zero at its end
            return made
        group("entry", "NXentry")
        data = group("entry/data", "NXdata")
        for number in (1, 2):
            data[f"data_{number:06d}"] = h5py.ExternalLink(f"nexus_data_{number:06d}.h5", "/entry/data/data")
        group("entry/instrument", "NXinstrument")
        group("entry/instrument/beam", "NXbeam")["incident_wavelength"] = 0.0251
        detector = group("entry/instrument/detector", "NXdetector")
        detector["x_pixel_size"] = 75.0
        detector["x_pixel_size"].attrs["units"] = "um"
        detector["detector_distance"] = 0.8
        detector["count_time"] = 0.1
        mask = np.zeros((HEIGHT, WIDTH), "u4")
        mask[0, 2] = 1
        detector["pixel_mask"] = mask
        for name, vector in (("fast", (-1.0, 0, 0)), ("slow", (0, -1.0, 0))):
            detector[f"module/{name}_pixel_direction"] = 75e-6
            detector[f"module/{name}_pixel_direction"].attrs["vector"] = vector
        turning = group("entry/sample", "NXsample").create_group("transformations")
        turning["omega"] = [-1.0, 0.0, 1.0]
        turning["omega"].attrs["transformation_type"] = "rotation"
        turning["omega"].attrs["units"] = "deg"
        turning["omega"].attrs["vector"] = (np.sin(np.radians(30)), -np.cos(np.radians(30)), 0)
        turning["omega_increment_set"] = [0.5, 0.5, 0.5]
        turning["chi"] = [0.0, 0.0, 0.0]
        for i in range(40):  # whoever follows them all never ends
            turning[f"group{i}"] = turning


def write_emd():
    with h5py.File(path("angles_last.emd"), "w") as file:
        data = file.create_group("data/series")
        data.attrs["emd_group_type"] = 1
        data["data"] = np.moveaxis(stack("i2"), 0, 2)
        for name, units, values in (("dim1", "[n_m^-1]", [0.0, 0.05]), ("dim2", "[n_m^-1]", [0.0, 0.05]),
                                    ("dim3", "[deg]", [-1.0, 0.0, 1.0])):
            data[name] = values
            data[name].attrs["units"] = units
    with h5py.File(path("velox.emd"), "w") as file:
        group = file.create_group("Data/Image/0123")
        group["Data"] = np.moveaxis(stack("u2"), 0, 2)
        notes = np.zeros((1000, FRAMES), "u1")
        for i in range(FRAMES):
            text = json.dumps({"Stage": {"AlphaTilt": str(np.radians(i - 1.0))},
                               "Optics": {"AccelerationVoltage": "200000"},
                               "BinaryResult": {"PixelSize": {"width": "50000000"}, "PixelUnitX": "1/m"}})
            notes[:len(text), i] = np.frombuffer(text.encode(), "u1")
        group["Metadata"] = notes
    with h5py.File(path("plain.h5"), "w") as file:
        file["scan/counts"] = stack("f4")
        file["scan/dark"] = stack("f4")[0]
        file["other/counts"] = stack("f4")[:2] + 7


def write_outside():
    """Arrays whose numbers lie in other files: one folder up, behind a link of another file, without a format."""
    for name, source in (("gathered.h5", h5py.VirtualSource("../plain.h5", "scan/counts", (FRAMES, HEIGHT, WIDTH))),
                         ("gathered_linked.h5", h5py.VirtualSource("nexus_master.h5", "entry/data/data_000001",
                                                                   (2, HEIGHT, WIDTH)))):
        layout = h5py.VirtualLayout(source.shape, "f4")
        layout[:] = source
        with h5py.File(path(name), "w") as file:
            file.create_virtual_dataset("counts", layout)
    with h5py.File(path("raw.h5"), "w") as file:
        file.create_dataset("counts", (2, HEIGHT, WIDTH), "u1", external=[("/etc/passwd", 0, h5py.h5f.UNLIMITED)])


def write_greedy():
    """Small files that ask for much: frames, pieces, memory to unpack a piece, depth, themselves."""
    for name, shape, piece in (("many.h5", (10**6, 1, 1), (10**6, 1, 1)), ("pieces.h5", (2, 500, 500), (1, 1, 1)),
                               ("stored.h5", (2, 8, 8), (1, 8, 8))):
        with h5py.File(path(name), "w") as file:
            array = file.create_dataset("counts", shape, "u1", chunks=piece, compression="gzip")
            array.id.write_direct_chunk((0, 0, 0), zlib.compress(bytes(5 * 10**6), 9))
    with h5py.File(path("deep.h5"), "w", libver="latest") as file:
        file["/".join("g" * 70)] = stack("u1")
    with h5py.File(path("itself.h5"), "w") as file:
        layout = h5py.VirtualLayout((2, 8, 8), "u1")
        layout[:] = h5py.VirtualSource(".", "counts", (2, 8, 8))
        file.create_virtual_dataset("counts", layout)


def write_packed():
    for name, ending, pack in (("frame.cbf", ".gz", lambda plain: gzip.compress(plain, mtime=0)),
                               ("half.mrc", ".bz2", bz2.compress)):
        with open(path(name), "rb") as file, open(path(name + ending), "wb") as packed:
            packed.write(pack(file.read()))


if __name__ == "__main__":
    os.makedirs(FOLDER, exist_ok=True)
    for write in (write_tiff, write_mrc, write_cbf, write_nexus, write_emd, write_outside, write_greedy, write_packed):
        write()
