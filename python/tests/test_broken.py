import random

import numpy as np
import pytest

import krx
import krxbuild as kb
from test_read import hand_built


def write(tmp_path, data):
    path = tmp_path / "broken.krx"
    path.write_bytes(bytes(data))
    return path


def refusal(tmp_path, data):
    with pytest.raises(krx.KrxError) as e:
        krx.read(write(tmp_path, data))
    return str(e.value)


def test_not_a_krx_file(tmp_path):
    assert refusal(tmp_path, b"\0" * 4000) == (
        "block 1 (version_code) at byte 0: not a KRX version code (00000000)")
    assert "holds 2 bytes" in refusal(tmp_path, b"\0\1")
    with pytest.raises(krx.KrxError, match="cannot open"):
        krx.read(tmp_path / "missing.krx")
    enc = kb.Enc(60)
    data = kb.krx_file(enc, {12: kb.sparse_block(enc, 10**6, [])})
    assert "matrix order 1000000 is more than the file can justify" in refusal(tmp_path, data)


# (block, word of the block changed, new value, byte after the block start named, refusal)
@pytest.mark.parametrize("block,word,value,delta,expected", [
    (4, 0, 2**31 - 1, 8, "2147483647 node records needs 60129542116 bytes but the file ends"),
    (4, 0, -1, 0, "node count is negative (-1)"),
    (8, 0, 3, 0, "3 mode shape modes, but 2 eigenvalues"),
    (8, 1, 2**30, 8, "1073741824 node ids needs 4294967296 bytes"),
    (12, 1, 2**30, 4, "matrix order 1073741824 is more than the file can justify"),
    (12, 1, 1, 0, "an entry lies outside the 1 x 1 matrix"),
    (14, 3, 2**31 - 1, 0, "block size 64 does not match a face list of 2147483647 words"),
    (14, 4, 12, 16, "face 1 has a vertex count of 12"),
    (14, 5, 4, 16, "a face names node position 4, outside the 4 nodes of block 4"),
    (21, 0, 2**31 - 1, 4, "6442450941 values needs"),
])
def test_wrong_and_absurd_counts_are_refused_where_they_are(tmp_path, block, word, value, delta,
                                                            expected):
    data, blocks = hand_built(316)
    start = 4 + 4 * (544 + 100) + sum(len(blocks[b]) for b in blocks if b < block)
    data = bytearray(data)
    data[start + 4 * word:start + 4 * word + 4] = kb.Enc(316).i(value)
    assert refusal(tmp_path, data).startswith(
        f"block {block} ({krx._layout.BLOCK_NAMES[block]}) at byte {start + delta}: {expected}")


@pytest.mark.parametrize("code", [10, 20, 60, 828])
def test_truncated_or_damaged_files_give_values_or_a_krx_error(tmp_path, code):
    clean = hand_built(code)[0]
    for cut in range(len(clean)):
        message = refusal(tmp_path, clean[:cut])
        assert message.startswith("block ") and " at byte " in message
    rng = random.Random(code)
    for _ in range(300):
        data = bytearray(clean)
        for _ in range(rng.randint(1, 4)):
            at = rng.randrange(len(data))
            data[at] = rng.choice([0, 0xFF, 0x7F, 0x80, rng.randrange(256)])
        try:
            f = krx.read(write(tmp_path, data))
        except krx.KrxError:
            continue
        if f.mode_shapes is not None and len(f.mode_shapes):
            np.asarray(f.mode_shapes[len(f.mode_shapes) - 1])
        if f.coords is not None:
            krx.to_meshio(f)
