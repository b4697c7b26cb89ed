# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The translator refuses, by name and line, whatever it does not know."""

from __future__ import annotations

import pathlib
import re

import ptx_cpp
import ptx_defects
import ptx_forms
import ptx_text
import pytest

HERE = pathlib.Path(__file__).parent
_KERNEL = """\
.version 6.3
.target sm_61
.address_size 64
.visible .entry One(
.param .u64 One_param_0,
.param .u32 One_param_1
)
{{
.reg .pred %p<3>;
.reg .b16 %rs<3>;
.reg .b32 %r<5>;
.reg .f32 %f<5>;
.reg .b64 %rd<5>;
{body}
ret;
}}
"""


def translated(*body: str) -> str:
    """Return the statements of a kernel that holds the lines."""
    module = ptx_text.read(_KERNEL.format(body="\n".join(body)))
    lines = ptx_cpp.cpp_of([module]).splitlines()
    function = lines[lines.index("// One") : lines.index("  return;")]
    return "\n".join(line.strip() for line in function[3:] if "Poison" not in line)


@pytest.mark.parametrize(
    ("line", "cpp"),
    [
        ("mad.lo.s32 %r1, %r2, %r3, -1;", "MadLo<S32>(r2, r3, 4294967295u)"),
        ("add.rm.f32 %f1, %f2, 0f42C00000;", "AddRm<F32>(f2, 0x42C00000u)"),
        ("cvt.rzi.s32.f32 %r1, %f1;", "r1 = Into<uint32_t>(CvtRzi<S32, F32>(f1));"),
        ("ld.global.s8 %rs1, [%rd1+3];", "rs1 = Into<uint16_t>(LdGlobal<S8>(rd1 + 3u));"),
        ("ld.param.u32 %r1, [One_param_1];", "LdParam<U32>(arguments[1])"),
        ("selp.f32 %f1, 0f3F800000, %f2, %p1;", "Selp<F32>(0x3F800000u, f2, p1)"),
        ("mov.u32 %r1, %ctaid.y;", "Mov<U32>(blockIdx.y)"),
        ("mul.wide.s32 %rd1, %r1, 4;", "rd1 = Into<uint64_t>(MulWide<S32>(r1, 4u));"),
        ("xor.pred %p1, %p2, -1;", "Xor<Pred>(p2, true)"),
        ("bar.sync 0;", "__syncthreads();"),
        ("bar.red.and.pred %p1, 0, %p2;", "p1 = __syncthreads_and(p2);"),
        ("prmt.b32 %r1, %r2, %r3, 21520;", "Prmt<B32>(r2, r3, 21520u)"),
        ("dp4a.s32.s32 %r1, %r2, %r3, %r4;", "Dp4a<S32, S32>(r2, r3, r4)"),
        ("$L__1:\n@!%p1 bra $L__1;", "if (!p1) goto L__1;"),
        ("st.shared.f32 [%rd1+1024], %f1;", "StWindow<F32>(shared, rd1 + 1024u, f1);"),
        (
            "ld.shared.v4.u32 {%r1, %r2, %r3, %r4}, [%rd1];",
            "LdWindowVector<U32>(shared, rd1, &r1, &r2, &r3, &r4);",
        ),
    ],
)
def test_a_statement_for_an_instruction(line, cpp):
    """Each form is a function of the same name."""
    assert cpp in translated(line)


@pytest.mark.parametrize(
    ("line", "refused"),
    [
        ("add.rn.sat.f32 %f1, %f2, %f3;", "add.rn.sat.f32 %f1, %f2, %f3"),
        ("bfe.u32 %r1, %r2, 3, 4;", "bfe.u32 %r1, %r2, 3, 4"),
        ("atom.global.add.u32 %r1, [%rd1], 1;", "atom.global.add.u32 %r1, [%rd1], 1"),
        ("bar.sync 1;", "bar.sync 1"),
        ("bar.red.and.pred %p1, 1, %p2;", "bar.red.and.pred %p1, 1, %p2"),
        ("@%p1 add.s32 %r1, %r2, %r3;", "@%p1 add.s32 %r1, %r2, %r3"),
        ("setp.lt.s32 %p1|%p2, %r1, %r2;", "no register for .pred: %p1|%p2"),
        ("add.s32 %r1, %r2, %rd3;", "%rd3 does not hold .s32"),
        ("add.s64 %rd1, %r2, %rd3;", "%r2 does not hold .s64"),
        ("add.s32 %r1, %r2;", "add.s32 %r1, %r2"),
        ("mov.u32 %r1, %laneid;", "%laneid"),
        ("mov.u64 %rd1, Elsewhere;", "Elsewhere"),
        ("ld.param.u32 %r1, [Two_param_0];", "no such parameter"),
        ("ld.global.u32 %r1, [%r2];", "[%r2]"),
        (".reg .b128 %q<2>;", "registers of a kind that is not known: .b128"),
        (".maxntid 512;", ".maxntid 512"),
    ],
)
def test_what_is_not_known_is_refused(line, refused):
    """With its line in the text."""
    with pytest.raises(ptx_text.UnknownTextError, match=re.escape(refused)) as caught:
        translated(line)
    assert "line 14" in str(caught.value)


def test_registers_of_a_brace_are_its_own():
    """They hide those of the same name, up to its end."""
    text = translated(
        "setp.eq.s32 %p1, %r1, 0;",
        "{",
        ".reg .pred %p1;",
        "setp.ne.u32 %p1, %r2, 0;",
        "selp.u32 %r3, 1, 0, %p1;",
        "}",
        "selp.u32 %r4, 1, 0, %p1;",
    )
    assert "p1_1 = Into<bool>(SetpNe<U32>(r2, 0u));" in text
    assert "Selp<U32>(1u, 0u, p1_1)" in text
    assert "r4 = Into<uint32_t>(Selp<U32>(1u, 0u, p1));" in text


def test_a_statement_without_an_end_is_refused():
    """A text that is cut off."""
    with pytest.raises(ptx_text.UnknownTextError, match="without an end: add"):
        ptx_text.read(_KERNEL.format(body="add.s32 %r1, %r2,").split("\nret")[0])


def test_each_function_is_defined():
    """Every form that takes values and gives one has its function in the headers."""
    headers = "".join((HERE / name).read_text() for name in ("instructions.h", "floats.h"))
    names = set(re.findall(r"\b([A-Z]\w+)\(", headers))
    # Two families are written by macros.
    for suffix in re.findall(r"BITFOLD_PTX_DIRECTED\((R\w)", headers):
        names |= {f"{name}{suffix}" for name in ("Add", "Sub", "Mul", "Div", "Rcp")}
    for name in re.findall(r"BITFOLD_PTX_FLUSHED\((\w+)\)", headers):
        names.add(f"{name}RnFtz")
    for name in re.findall(r"BITFOLD_PTX_COMPARISON\((\w+), [=<>]", headers):
        names |= {f"Setp{name}", f"Setp{name}u"}
    missing = {
        form for form in ptx_forms.VALUES if ptx_forms.function(form).split("<")[0] not in names
    }
    assert not missing


def test_the_text_that_ships_is_known(library):
    """Every instruction of it, and of every defect that can be planted in it."""
    modules = [ptx_text.read(text) for text in ptx_text.texts_in(library)]
    assert len(modules) == 5
    assert sum(len(module.kernels) for module in modules) == 16
    body = [i for module in modules for kernel in module.kernels for i in kernel.body]
    forms = {i.form for i in body if i.form[0] not in "{}$"}
    assert forms <= ptx_forms.KNOWN
    defects = ptx_defects.all_defects(modules)
    assert {d.altered.form for d in defects if d.altered} <= ptx_forms.KNOWN
    print(f"\n{len(body)} instructions of {len(forms)} forms, {len(defects)} possible defects")
