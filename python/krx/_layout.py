"""The file's fixed facts: block names, the content-summary byte of each block, version codes."""

BLOCK_NAMES = {
    1: "version_code", 2: "header", 3: "content_summary", 4: "nodal_coords",
    5: "element_topology", 6: "global_body_props", 7: "eigenvalues", 8: "mode_shapes",
    9: "nodal_masses", 10: "nodal_inertias", 11: "units", 12: "generalized_stiff",
    13: "generalized_mass", 14: "element_faces", 15: "generalized_damping",
    16: "mode_shape_transformation", 17: "interface_nodes", 18: "modal_stress",
    19: "invariant 1", 20: "invariant 2", 21: "invariant 3", 22: "invariant 4",
    23: "invariant 5", 24: "invariant 7", 25: "invariant 8", 26: "invariant 9",
    27: "preload", 28: "modal_loads", 29: "modal_strain", 30: "modal_statistics",
    31: "pre_stress", 32: "pre_strain",
}

# Content-summary byte of blocks 4 to 32; bytes 7 and 11 are reserved, so the run of blocks
# shifts by one after each of them.
FLAG_BYTE = {b: b - 4 if b <= 10 else b - 3 if b <= 13 else b - 2 for b in range(4, 33)}

HEADER_FIELDS = (("title", 128), ("date", 32), ("input_name", 128), ("input_type", 16),
                 ("comment1", 80), ("comment2", 80), ("comment3", 80))
HEADER_CHARS = sum(n for _, n in HEADER_FIELDS)  # 544
FLAG_COUNT = 100

NATIVE_GENERATIONS = (10, 20, 30, 40, 50)
OLD_GENERATIONS = (10, 20, 30, 31)  # no invariant or later blocks


def is_xdr_code(code):
    return code in (31, 41, 51) or bool(code & 0x100)


def is_single_code(code):
    return code in (50, 51) or bool(code & 0x200)
