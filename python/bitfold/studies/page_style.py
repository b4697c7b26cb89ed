# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a report's page looks like: light, dark, on paper and on a phone."""

CSS = """
:root {
  color-scheme: light dark;
  --surface: #ffffff; --raised: #f5f7f9; --ink: #17212b; --muted: #566573; --grid: #e1e6ea;
  --rail: #c3ced6; --accent: #00609c;
  --series-1: #0072b2; --series-2: #d55e00; --series-3: #00805e; --series-4: #8a4b9e;
  --series-5: #b07800; --series-6: #b8336a;
  --heat-0: #edf1f3; --heat-1: #fde3c2; --heat-2: #fbc583; --heat-3: #f0944a;
  --heat-4: #d4591f; --heat-5: #9c2a12; --heat-6: #560b12;
}
@media screen and (prefers-color-scheme: dark) {
  :root {
    --surface: #12181d; --raised: #1b232a; --ink: #e8edf1; --muted: #9fb0bd; --grid: #2b363f;
    --rail: #46545f; --accent: #6cbcf0;
    --series-1: #4db2ee; --series-2: #ff8a4a; --series-3: #35c79d; --series-4: #c79be0;
    --series-5: #e8bd45; --series-6: #f48bb4;
    --heat-0: #1e272d; --heat-1: #43281a; --heat-2: #703515; --heat-3: #a84a14;
    --heat-4: #de7430; --heat-5: #f8ae68; --heat-6: #ffecc9;
  }
}
* { box-sizing: border-box; }
html { -webkit-text-size-adjust: 100%; text-size-adjust: 100%; }
body {
  margin: 0; background: var(--surface); color: var(--ink); overflow-wrap: anywhere;
  font: 1rem/1.55 system-ui, "Segoe UI", Roboto, "Noto Sans", "DejaVu Sans", sans-serif;
}
header, main, footer { max-width: 52rem; margin: 0 auto; padding: 0 1.25rem; }
header { padding-top: 2.5rem; }
h1, h2, h3 { line-height: 1.25; text-wrap: balance; }
h1 { font-size: 1.9rem; margin: 0 0 .5rem; }
h2 {
  font-size: 1.35rem; margin: 3rem 0 .5rem; padding-top: 1rem; border-top: 1px solid var(--grid);
}
h3 { font-size: 1.05rem; margin: 2rem 0 .25rem; }
p { margin: .5rem 0 1rem; max-width: 44rem; }
.result {
  border-left: 3px solid var(--accent); margin: 1rem 0; padding: 0 0 0 .9rem; max-width: 44rem;
}
ul.result { list-style: none; }
ul.result li + li { margin-top: .35rem; }
a { color: var(--accent); }
.facts { display: flex; flex-wrap: wrap; gap: .75rem; margin: 1.5rem 0; padding: 0; }
.facts div {
  flex: 1 1 8.5rem; display: flex; flex-direction: column; justify-content: space-between;
  background: var(--raised); border-radius: .5rem; padding: .7rem .9rem;
}
.facts dt { color: var(--muted); font-size: .85rem; line-height: 1.3; }
.facts dd {
  margin: .15rem 0 0; font-size: 1.2rem; white-space: nowrap; font-variant-numeric: tabular-nums;
}
nav ul {
  display: flex; flex-wrap: wrap; gap: .25rem 1.25rem; list-style: none; padding: 0; margin: 1rem 0;
}
.words dt { font-weight: 600; margin-top: .6rem; }
.words dd { margin: 0; max-width: 44rem; }
figure { margin: 1.5rem 0 .75rem; }
figure svg { display: block; width: 100%; height: auto; }
figure svg * { stroke-linejoin: round; stroke-linecap: butt; }
figure svg text { font-family: inherit; font-variant-numeric: tabular-nums; }
.wide { max-width: 760px; }
.narrow { display: none !important; }
figcaption { font-weight: 600; margin-bottom: .4rem; }
.key {
  display: flex; flex-wrap: wrap; gap: .15rem 1.1rem; list-style: none;
  margin: 0 0 .6rem; padding: 0; font-size: .875rem;
}
.key li { display: flex; align-items: center; gap: .4rem; }
figure .key svg { width: 24px; height: 14px; flex: none; }
.scroll { overflow-x: auto; margin: .75rem 0 1.25rem; }
.scroll:focus-visible { outline: 2px solid var(--accent); }
table {
  overflow-wrap: normal; border-collapse: collapse; font-size: .875rem;
  line-height: 1.35; font-variant-numeric: tabular-nums;
}
caption { text-align: left; color: var(--muted); padding: 0 0 .4rem; caption-side: top; }
th, td { padding: .3rem .7rem .3rem 0; text-align: left; vertical-align: top; }
thead th {
  vertical-align: bottom; font-weight: 600; color: var(--muted);
  border-bottom: 1px solid var(--muted);
}
thead th[scope=colgroup] { border-bottom: 1px solid var(--grid); text-align: center; }
tbody th { font-weight: 500; overflow-wrap: anywhere; min-width: 8rem; max-width: 20rem; }
tbody th, thead tr:first-child th:first-child {
  position: sticky; left: 0; background: var(--surface);
}
td:not(.number) { min-width: 8rem; max-width: 24rem; }
tbody tr { border-bottom: 1px solid var(--grid); }
.number { text-align: right; white-space: nowrap; }
thead .number { white-space: normal; }
details { margin: .5rem 0; }
summary { cursor: pointer; color: var(--accent); padding: .25rem 0; }
footer { color: var(--muted); font-size: .9rem; padding-bottom: 3rem; }
@media (max-width: 46rem) {
  header, main, footer { padding-left: 1rem; padding-right: 1rem; }
  header { padding-top: 1.5rem; }
  h1 { font-size: 1.5rem; }
  .wide { display: none !important; }
  .narrow { display: block !important; max-width: 30rem; }
}
@media print {
  body { font-size: 10pt; }
  nav { display: none; }
  h2, h3, .key, caption { break-after: avoid; }
  figure, tr, .facts { break-inside: avoid; }
  thead { display: table-header-group; }
  .wide { display: block !important; max-height: 22cm; }
  .narrow { display: none !important; }
  .scroll { overflow: visible; }
  table { font-size: 7.5pt; }
  .facts div { border: 1px solid var(--grid); flex-basis: 6rem; }
  .facts dd { font-size: 1rem; }
  * { -webkit-print-color-adjust: exact; print-color-adjust: exact; }
  details::details-content { content-visibility: visible; display: block; height: auto; }
}
"""
