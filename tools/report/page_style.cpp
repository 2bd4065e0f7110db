#include "tools/report/page_style.h"

namespace bthalctl {

const char kPageStyle[] = R"(
:root { color-scheme: light dark; --ink: #1c1f23; --paper: #ffffff; --soft: #5b6470; --line: #d5dae0;
  --a: #2b6cb0; --b: #c05621; --c: #2f855a; --d: #805ad5; --wait: #90a4b8; --bad: #c53030; --warn: #b7791f;
  --good: #2f855a; --mark: #fff3cd; }
@media (prefers-color-scheme: dark) {
  :root { --ink: #e4e7eb; --paper: #16191d; --soft: #9aa5b1; --line: #3a424c; --a: #63b3ed; --b: #f6ad55;
    --c: #68d391; --d: #b794f4; --wait: #5c6b7a; --bad: #fc8181; --warn: #f6e05e; --good: #68d391; --mark: #4a3f1a; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 76rem; padding: 1rem 1.5rem 4rem; background: var(--paper); color: var(--ink);
  font: 16px/1.5 system-ui, sans-serif; }
h1 { font-size: 1.5rem; } h2 { font-size: 1.2rem; border-bottom: 1px solid var(--line); margin-top: 2.2rem; }
h3 { font-size: 1rem; margin-bottom: .3rem; }
nav { display: flex; flex-wrap: wrap; gap: .3rem 1rem; } a { color: var(--a); }
a:focus-visible, summary:focus-visible { outline: 3px solid var(--a); outline-offset: 2px; }
.verdict { font-size: 1.25rem; padding: .7rem 1rem; border-left: .5rem solid var(--soft); background: color-mix(in srgb, var(--line) 35%, transparent); }
.verdict.up { border-color: var(--good); } .verdict.failed { border-color: var(--bad); }
.verdict.stuck, .verdict.unknown { border-color: var(--warn); }
.made, .legend { color: var(--soft); font-size: .9rem; }
svg { display: block; width: 100%; height: auto; }
svg text { fill: var(--ink); font: 12px system-ui, sans-serif; }
svg .label { text-anchor: end; } svg .tick { text-anchor: middle; fill: var(--soft); }
svg .grid { stroke: var(--line); }
svg .curve { fill: none; stroke-width: 1.5; }
.step, .on { fill: var(--a); background: var(--a); } .off { fill: var(--line); background: var(--line); }
.wait { fill: var(--wait); background: var(--wait); }
.failed { fill: var(--bad); } .key.failed { background: var(--bad); }
.running { fill: var(--warn); background: var(--warn); }
.a { fill: var(--a); background: var(--a); } .b { fill: var(--b); background: var(--b); }
.c { fill: var(--c); background: var(--c); } .d { fill: var(--d); background: var(--d); }
.curve.a { stroke: var(--a); } .curve.b { stroke: var(--b); } .curve.c { stroke: var(--c); }
.key { display: inline-block; width: .9rem; height: .9rem; border-radius: 2px; vertical-align: -2px; margin-left: .8rem; }
table { border-collapse: collapse; margin: .8rem 0; font-size: .9rem; }
caption { text-align: left; color: var(--soft); }
th, td { text-align: left; vertical-align: top; padding: .15rem .9rem .15rem 0; border-bottom: 1px solid var(--line); overflow-wrap: break-word; }
td:first-child, .number { white-space: nowrap; } 
.number { text-align: right; font-variant-numeric: tabular-nums; }
tr.error td, tr.fault td { color: var(--bad); } tr.warning td, tr.loss td { color: var(--warn); }
tr.differs td { background: var(--mark); }
.crash { border: 1px solid var(--line); border-left: .4rem solid var(--bad); padding: .2rem 1rem .6rem; margin: .8rem 0; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: .1rem 1rem; margin: .3rem 0; font-size: .9rem; }
dt { color: var(--soft); } dd { margin: 0; overflow-wrap: anywhere; }
pre { overflow-x: auto; font-size: .8rem; line-height: 1.35; max-height: 40rem; }
summary { cursor: pointer; padding: .2rem 0; }
.pair { display: grid; grid-template-columns: 1fr 1fr; gap: 2rem; } .pair > div { min-width: 0; }
@media print { :root { color-scheme: light; } body { max-width: none; font-size: 11pt; } nav { display: none; }
  section, .crash, svg { break-inside: avoid; } pre { max-height: none; white-space: pre-wrap; }
  rect, circle, .key { print-color-adjust: exact; -webkit-print-color-adjust: exact; } }
)";

}  // namespace bthalctl
