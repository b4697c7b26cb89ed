/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * FPX: the accelerator's narrow floating-point format in software, for callers outside the runtime.
 *
 * A value has a sign, a biased exponent of exp_len bits and a mantissa of man_len bits that holds
 * its leading one explicitly:
 *     (-1)^sign * 2^(exponent - bias) * mantissa / 2^man_len,    bias = get_bias(exp_len).
 * A value with exponent 0 and mantissa 0 is zero, of either sign. There are no infinities and no
 * NaNs: overflow saturates, and four counters record what was lost.
 *
 * The format's own range is exp_len 3 or 4 and man_len 1 to 24. Other widths are not refused:
 * get_bias logs and gives 0, and shift counts are taken modulo 32 (products: modulo 64).
 *
 * C and C++. Link with libbitfold_steps.so, which needs no runtime (bitfold::steps in CMake,
 * bitfold-steps in pkg-config), or with libbitfold.so, whose path `bitfold.library_path()` prints.
 * What is logged goes to standard error from the one, to the runtime's log from the other. No
 * function locks; concurrent callers may lose increments of the counters. A pointer may be NULL
 * where it says so.
 */

#ifndef BITFOLD_FPX_H_
#define BITFOLD_FPX_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 12 bytes on x86-64: mantissa at 4, exponent at 8, sign the lowest bit of byte 10. The other bits
 * of the sign's storage unit are left untouched by every operation. */
typedef struct FPX {
  uint8_t exp_len;
  uint8_t man_len;
  uint32_t mantissa;
  uint16_t exponent;
  unsigned int sign : 1;
} FPX;

/* Counters, zero at load, never reset by these functions: overflows and underflows to zero of
 * float32_toX, overflows and all underflows of ResizeX. */
extern int32_t g_32toX_of;
extern int32_t g_32toX_uf;
extern int32_t g_resizeX_of;
extern int32_t g_resizeX_uf;

/* 11 for 4 exponent bits, 3 for 3. Any other width logs "Wrong Explen" as an error and gives 0. */
int get_bias(int exp_len);

/* Sets sign, exponent and mantissa of *x to v in the widths that *x has. Rounds to nearest with
 * ties truncated; the octave just below the range gives the smallest magnitude. Infinities and NaN
 * saturate. */
void float32_toX(float v, FPX* x);

/* The value of x. */
float floatX_to32(FPX x);

/* Re-quantises *x to other widths, ties truncated. Widening the mantissa is not provided for and
 * loses it. Every underflow counts, also the octave that gives the smallest magnitude. */
void ResizeX(FPX* x, uint16_t exp_len, uint16_t man_len);

/* Brings both to the larger exponent, truncating the other's mantissa; nothing when their widths
 * differ. */
void align_floatX(FPX* a, FPX* b);

/* *out = a + b, signs included; zero when the widths of the three differ. The exponent is not
 * checked against its range. When normalising would need a negative exponent only the sign of *out
 * is set. */
void add_sub_floatX(FPX a, FPX b, FPX* out);

/* *out = a * b in the widths of *out, truncated; zero when the widths of a and b differ or one of
 * them is not normalised. The exponent is not checked against its range. */
void mul_floatX(FPX a, FPX b, FPX* out);

/* Writes the n lowest bits of value, most significant first, as '0' and '1', no terminator; bits
 * beyond the 32nd are '0'. Returns buf. */
char* int2bin(char* buf, int value, size_t n);

/* "sign exponent mantissa" in binary digits, allocated with malloc; the caller frees it. NULL when
 * there is no memory. */
char* FPX_to_BitString(const FPX* x);

/* New arrays of n values; empty for n <= 0. Where there is no memory for n, libbitfold_steps.so
 * returns NULL, from which no exception comes, and libbitfold.so throws
 * std::bad_array_new_length. Released by OverrideFloatArray_fromFPX or DeleteInputFPX. */
FPX* CreateFPXArray_fromFloat32(const float* data, int n, unsigned char exp_len,
                                unsigned char man_len);
FPX* CreateFPXArray_initZero(int n, unsigned char exp_len, unsigned char man_len);

/* Resizes every element; returns arr, which may be NULL. */
FPX* ReplaceFPXArray_fromFPXArray(FPX* arr, int n, unsigned char exp_len, unsigned char man_len);

/* out[i] = value of arr[i], then releases arr. Nothing where arr is NULL. */
void OverrideFloatArray_fromFPX(FPX* arr, float* out, int n);

/* Releases arr, which may be NULL. */
void DeleteInputFPX(FPX* arr);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* BITFOLD_FPX_H_ */
