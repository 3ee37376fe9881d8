// The style of the report page. No address outside the page.
#pragma once

namespace Tool
{

inline constexpr char kReportStyle[] = R"css(
:root { color-scheme: light dark; --back: #fff; --text: #1d2129; --dim: #5b6370; --line: #d5d9e0; --card: #f5f6f8;
  --accept: #0b6b32; --deny: #a31621; --ask: #7a4d00; --link: #0b57a4; }
@media (prefers-color-scheme: dark) { :root { --back: #14171c; --text: #e4e7ec; --dim: #a3abb8; --line: #353b45;
  --card: #1d2128; --accept: #6fd596; --deny: #ff9a9f; --ask: #f0c169; --link: #8dbdf5; } }
* { box-sizing: border-box; } [hidden] { display: none !important; }
body { margin: 0 auto; max-width: 92rem; padding: 1rem; background: var(--back); color: var(--text);
  font: 1rem/1.45 system-ui, "Segoe UI", sans-serif; overflow-wrap: anywhere; }
a { color: var(--link); }
a:focus-visible, button:focus-visible, input:focus-visible, summary:focus-visible { outline: 3px solid var(--link);
  outline-offset: 2px; }
.skip { position: absolute; left: -99rem; } .skip:focus { left: 1rem; top: .5rem; background: var(--back); padding: .5rem; }
h1 { font-size: 1.6rem; margin: .2rem 0; } h2 { font-size: 1.25rem; margin: 2rem 0 .5rem; }
bdi, h3, a, button, li, td, th { unicode-bidi: isolate; }
.dim, .line { color: var(--dim); } .line, .code { font-family: ui-monospace, Consolas, monospace; font-size: .85rem; }
.code { border: 1px solid currentColor; border-radius: .25rem; padding: 0 .2rem; font-weight: 400; }
.tiles { display: flex; flex-wrap: wrap; gap: .75rem; padding: 0; list-style: none; }
.tiles li { background: var(--card); border: 1px solid var(--line); border-radius: .5rem; padding: .5rem 1rem; }
.tiles b { display: block; font-size: 1.4rem; }
nav ul { display: flex; flex-wrap: wrap; gap: .25rem 1rem; padding: 0; list-style: none; }
.order { display: flex; flex-wrap: wrap; gap: .25rem 2.8rem; padding-left: 1.8rem; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; vertical-align: top; padding: .4rem .5rem; border-bottom: 1px solid var(--line); }
th { font-size: .9rem; }
th button, [popovertarget] { font: inherit; color: inherit; background: none; border: 0; padding: 0; cursor: pointer; }
th button { font-weight: 600; padding: .2rem; }
[popovertarget] { color: var(--link); text-decoration: underline dotted; text-align: left; user-select: text; }
[popover] { max-width: min(40rem, 90vw); padding: 1rem; border: 1px solid var(--dim); border-radius: .5rem;
  background: var(--card); color: var(--text); }
th[aria-sort=ascending] button::after { content: " \25B2"; } th[aria-sort=descending] button::after { content: " \25BC"; }
tr.off td { color: var(--dim); text-decoration: line-through; text-decoration-color: var(--line); }
tr.idle td { background: var(--card); } tr.idle td:first-child { box-shadow: inset .2rem 0 var(--ask); }
tr:focus { outline: 3px solid var(--link); outline-offset: -3px; }
.accept { color: var(--accept); } .deny { color: var(--deny); } .ask { color: var(--ask); }
.set .accept, .set .deny, .set .ask { font-weight: 600; }
details { border: 1px solid var(--line); border-radius: .5rem; margin: .75rem 0; padding: 0 .75rem; }
summary { cursor: pointer; padding: .6rem 0; font-size: 1.1rem; } summary h3 { display: inline; font-size: 1.1rem; }
.badge { font-size: .85rem; border: 1px solid currentColor; border-radius: 1rem; padding: 0 .6rem; margin-left: .5rem;
  white-space: nowrap; font-weight: 400; }
.badge.on { color: var(--accept); } td .badge { margin-left: 0; color: var(--ask); }
.search { position: sticky; top: 0; background: var(--back); padding: .5rem 0; z-index: 2; }
.search input { font: inherit; width: min(30rem, 100%); padding: .45rem .6rem; border: 1px solid var(--dim);
  border-radius: .4rem; background: var(--back); color: inherit; }
td ul { margin: 0; padding: 0; list-style: none; } td li { overflow-wrap: anywhere; }
td li a, td bdi + a { font-size: .8rem; }
@media (min-width: 48.01rem) {
  thead th { position: sticky; top: 0; background: var(--back); z-index: 1; box-shadow: inset 0 -1px var(--line); }
  .set thead th { top: 3.4rem; } .set td:nth-child(-n+4), thead th { white-space: nowrap; }
  .set td:nth-child(8) { min-width: 13rem; }
  .matrix { table-layout: fixed; }
  .matrix th:nth-child(1), .matrix th:nth-child(6) { width: 11%; } .matrix th:nth-child(5) { width: 15%; }
}
@media (min-width: 80rem) { .set td:nth-child(5), .set td:nth-child(6) { min-width: 8.5rem; } }
@media (max-width: 48rem) {
  .cards, .cards tbody, .cards tr, .cards td, .cards th { display: block; width: 100%; }
  .cards thead { display: none; }
  .set .cards thead { display: block; } .set thead tr { display: flex; flex-wrap: wrap; } .set thead th { width: auto; }
  .set tbody tr, .matrix tbody, .cards:not(.set table, .matrix) tr { border: 1px solid var(--line);
    border-radius: .5rem; margin: .6rem 0; padding: .3rem .2rem; }
  .cards td, .cards tbody th { border: 0; padding: .15rem .5rem; } .cards td:empty { display: none; }
  .matrix tr + tr { border-top: 1px solid var(--line); }
  td::before { color: var(--dim); font-weight: 400; }
  .set td:nth-child(1)::before { content: "Rule: "; } .set td:nth-child(2)::before { content: "Action: "; }
  .set td:nth-child(3)::before { content: "Kind: "; } .set td:nth-child(4)::before { content: "Protocol: "; }
  .set td:nth-child(5)::before { content: "From: "; } .set td:nth-child(6)::before { content: "To: "; }
  .set td:nth-child(7)::before { content: "Ports: "; } .set td:nth-child(8)::before { content: "Program: "; }
  .matrix td:nth-last-child(5)::before { content: "Program: "; }
  .matrix td:nth-last-child(4)::before { content: "Allowed: "; }
  .matrix td:nth-last-child(3)::before { content: "Refused: "; }
  .matrix td:nth-last-child(2)::before { content: "Asked: "; }
  .matrix td:nth-last-child(1)::before { content: "No rule: "; }
}
@media print {
  :root { color-scheme: light; --back: #fff; --text: #000; --dim: #444; --line: #999; --card: #eee; --accept: #0b6b32;
    --deny: #a31621; --ask: #7a4d00; --link: #000; }
  .search, nav, .skip { display: none; } body { max-width: none; padding: 0; font-size: 9pt; }
  thead th { position: static; } tr { break-inside: avoid; } h2, summary { break-after: avoid; }
}
)css";

} // namespace Tool
