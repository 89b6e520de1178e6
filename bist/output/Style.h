// SPDX-License-Identifier: MIT
#pragma once

/// How the page looks. No character here has a meaning in XML.
constexpr char pageStyle[] = R"(
:root {
  color-scheme: light dark;
  --page: #f6f7f8; --card: #ffffff; --text: #1b2229; --soft: #5b6773; --line: #d7dde3;
  --pass: #17794a; --fail: #c4282d; --skipped: #8a6100; --untested: #7a3fb0; --link: #1f5fbf;
  --s0: #1f5fbf; --s1: #c05a00; --s2: #17794a; --s3: #a02c7d; --s4: #5b6773; --s5: #007a8a;
}
@media screen and (prefers-color-scheme: dark) {
  :root {
    --page: #14181c; --card: #1c2228; --text: #e4e9ee; --soft: #9aa7b3; --line: #36404a;
    --pass: #4cc38a; --fail: #ff7b78; --skipped: #e0b04a; --untested: #c79bf2; --link: #7fb2ff;
    --s0: #7fb2ff; --s1: #ffa55c; --s2: #4cc38a; --s3: #f08bd0; --s4: #9aa7b3; --s5: #4fd0dd;
  }
}
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1.5rem; max-width: 72rem; background: var(--page);
  color: var(--text); font: 15px/1.45 system-ui, sans-serif; }
a { color: var(--link); }
h1 { font-size: 1.5rem; margin: 0; }
h2 { font-size: 1.15rem; margin: 0 0 .6rem; }
p { margin: .2rem 0; }
header { display: flex; flex-wrap: wrap; gap: .3rem 1.2rem; align-items: center;
  margin-bottom: 1rem; }
header p { color: var(--soft); flex-basis: 100%; }
section { background: var(--card); border: 1px solid var(--line); border-radius: 10px;
  padding: 1rem 1.2rem; margin-bottom: 1rem; overflow-x: auto; }
table { border-collapse: collapse; width: 100%; }
th { text-align: left; white-space: nowrap; font-weight: 600; color: var(--soft); font-size: .85em; }
th, td { padding: .28rem .9rem .28rem 0; vertical-align: top; border-bottom: 1px solid var(--line); }
tr:last-child td { border-bottom: 0; }
td.name { white-space: nowrap; }
td.name small { display: block; color: var(--soft); }
td.text { white-space: pre-wrap; font-family: ui-monospace, monospace; font-size: .9em; }
th.number, td.number { text-align: right; white-space: nowrap; font-variant-numeric: tabular-nums; }
td.figures { color: var(--soft); font-size: .88em; overflow-wrap: anywhere; min-width: 4.5rem; }
tr:target td { background: color-mix(in srgb, var(--link) 14%, transparent); }
pre { margin: .6rem 0 0; padding: .6rem .8rem; border-left: 3px solid var(--line);
  white-space: pre-wrap; font: .85em/1.45 ui-monospace, monospace; color: var(--soft); }
ul { margin: 0; padding-left: 1.2rem; }
b.verdict { display: inline-block; padding: .02rem .5rem; border-radius: 99px; font-size: .8rem;
  white-space: nowrap; border: 1px solid; }
h1 + b.verdict { font-size: 1.05rem; padding: .1rem .9rem; }
.pass { --colour: var(--pass); } .fail { --colour: var(--fail); }
.skipped { --colour: var(--skipped); } .not-tested { --colour: var(--untested); }
.none { --colour: var(--soft); }
b.verdict { color: var(--colour); }
svg { display: block; height: auto; max-width: 100%; margin-bottom: 1rem; font-family: system-ui, sans-serif; }
svg text { fill: var(--text); font-size: 12px; }
svg text.title { font-size: 14px; font-weight: 600; }
svg text.soft { fill: var(--soft); }
svg text.middle { text-anchor: middle; }
svg text.end { text-anchor: end; }
svg a { text-decoration: none; }
svg .box { fill: var(--card); stroke: var(--colour); stroke-width: 1.5; }
svg .none .box { stroke-dasharray: 4 3; } svg .plain .box { stroke-dasharray: none; }
svg .inner .box { fill: color-mix(in srgb, var(--colour) 10%, var(--card)); }
svg .frame { fill: color-mix(in srgb, var(--colour) 4%, transparent); }
svg a:hover .box, svg a:focus .box { stroke-width: 3; }
svg .bar, svg .mark circle { fill: var(--colour); }
svg .mark path { fill: none; stroke: var(--card); stroke-width: 2; stroke-linecap: round; }
svg .wire { fill: none; stroke: var(--colour); stroke-width: 3; }
svg .down { stroke-width: 2; stroke-dasharray: 5 5; }
svg .bus { fill: none; stroke: var(--soft); stroke-width: 1.5; }
svg .axis { stroke: var(--soft); } svg .grid { stroke: var(--line); }
svg .again { stroke-dasharray: 6 4; }
svg .curve { fill: none; stroke-width: 2; stroke-linejoin: round; }
svg .s0 { stroke: var(--s0); } svg .s1 { stroke: var(--s1); } svg .s2 { stroke: var(--s2); }
svg .s3 { stroke: var(--s3); } svg .s4 { stroke: var(--s4); } svg .s5 { stroke: var(--s5); }
svg .cell { stroke: var(--card); stroke-width: 2; }
svg .clear { fill: color-mix(in srgb, var(--pass) 30%, var(--card)); }
svg .unknown { fill: var(--line); }
svg .hot { fill: var(--fail); }
svg text.on-hot { fill: var(--card); }
svg .centre { fill: none; stroke: var(--text); stroke-width: 2.5; }
.legend { display: flex; flex-wrap: wrap; gap: .2rem 1.1rem; color: var(--soft);
  font-size: .85rem; margin-top: .5rem; }
.legend svg { margin-bottom: 0; display: inline-block; vertical-align: -3px; margin-right: .35rem; width: 16px; }
figure { margin: .8rem 0 0; }
figcaption { color: var(--soft); font-size: .88rem; }
@media screen and (max-width: 45rem) { svg[role=img] { min-width: 40rem; } body { padding: .6rem; } }
@media print {
  body { padding: 0; max-width: none; font-size: 10pt; background: none;
    print-color-adjust: exact; -webkit-print-color-adjust: exact; }
  section { border: 0; padding: .3rem 0; overflow: visible; }
  td.name { white-space: normal; } th, td { padding-right: .6rem; }
  figure, svg, tr, li { break-inside: avoid; }
  h2 { break-after: avoid; }
  thead { display: table-header-group; }
  td a, li a { color: inherit; text-decoration: none; }
}
)";
