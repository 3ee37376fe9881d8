// Style and script of the report page. No address outside the page.
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
.dim, .line { color: var(--dim); } .line { font-family: ui-monospace, Consolas, monospace; font-size: .85rem; }
.tiles { display: flex; flex-wrap: wrap; gap: .75rem; padding: 0; list-style: none; }
.tiles li { background: var(--card); border: 1px solid var(--line); border-radius: .5rem; padding: .5rem 1rem; }
.tiles b { display: block; font-size: 1.4rem; }
nav ul { display: flex; flex-wrap: wrap; gap: .25rem 1rem; padding: 0; list-style: none; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; vertical-align: top; padding: .4rem .5rem; border-bottom: 1px solid var(--line); }
th { font-size: .9rem; } th button { font: inherit; font-weight: 600; color: inherit; background: none; border: 0;
  padding: .2rem; cursor: pointer; }
th[aria-sort=ascending] button::after { content: " \25B2"; } th[aria-sort=descending] button::after { content: " \25BC"; }
td.number { text-align: right; font-variant-numeric: tabular-nums; }
@media (min-width: 48.01rem) { .sorted td:nth-child(-n+4), th { white-space: nowrap; } }
tr.off td { opacity: .6; } tr:target td { background: var(--card); }
.accept { color: var(--accept); font-weight: 600; } .deny { color: var(--deny); font-weight: 600; }
.ask { color: var(--ask); font-weight: 600; }
td ul a { color: inherit; font-weight: 400; }
details { border: 1px solid var(--line); border-radius: .5rem; margin: .75rem 0; padding: 0 .75rem; }
summary { cursor: pointer; padding: .6rem 0; font-size: 1.1rem; } summary h3 { display: inline; font-size: 1.1rem; }
.badge { font-size: .85rem; border: 1px solid currentColor; border-radius: 1rem; padding: 0 .6rem; margin-left: .5rem;
  white-space: nowrap; }
.badge.on { color: var(--accept); }
.search { position: sticky; top: 0; background: var(--back); padding: .5rem 0; border-bottom: 1px solid var(--line); z-index: 1; }
.search input { font: inherit; width: min(30rem, 100%); padding: .45rem .6rem; border: 1px solid var(--dim);
  border-radius: .4rem; background: var(--back); color: inherit; }
td ul { margin: 0; padding: 0; list-style: none; }
@media (max-width: 48rem) {
  .cards thead { position: absolute; left: -99rem; }
  .cards, .cards tbody, .cards tr, .cards td, .cards th { display: block; width: 100%; }
  .cards tr { border: 1px solid var(--line); border-radius: .5rem; margin: .6rem 0; padding: .3rem .2rem; }
  .cards td, .cards tbody th { border: 0; padding: .15rem .5rem; } .cards td:empty { display: none; }
  .cards td[data-label]::before { content: attr(data-label) ": "; color: var(--dim); }
  td.number { text-align: left; }
}
@media print { .search, nav, .skip { display: none; } body { max-width: none; } }
)css";

inline constexpr char kReportScript[] = R"js(
"use strict";
(() => {
  const input = document.getElementById("search");
  const count = document.getElementById("count");
  const rows = Array.from(document.querySelectorAll("tr.rule"));
  const sets = Array.from(document.querySelectorAll("details.set"));
  const texts = new Map(rows.map(row => [row, row.textContent.toLowerCase()]));
  const filter = () => {
    const words = input.value.toLowerCase().split(/\s+/).filter(word => word);
    let shown = 0;
    for (const row of rows) {
      row.hidden = !words.every(word => texts.get(row).includes(word));
      shown += row.hidden ? 0 : 1;
    }
    for (const set of sets) {
      const some = set.querySelector("tr.rule:not([hidden])") !== null;
      set.hidden = words.length > 0 && !some;
      if (words.length > 0 && some) set.open = true;
    }
    count.textContent = words.length > 0 ? `${shown} of ${rows.length} rules` : `${rows.length} rules`;
  };
  let timer = 0;
  input.addEventListener("input", () => { clearTimeout(timer); timer = setTimeout(filter, 120); });
  document.querySelector(".search").hidden = false;
  filter();
  const key = (row, column) => {
    const cell = row.cells[column];
    const text = cell.dataset.sort ?? cell.textContent.trim();
    return /^-?\d+$/.test(text) ? Number(text) : text.toLowerCase();
  };
  for (const table of document.querySelectorAll("table.sorted")) {
    table.querySelectorAll("thead th").forEach((head, column) => {
      const button = document.createElement("button");
      button.type = "button";
      button.textContent = head.textContent;
      head.replaceChildren(button);
      button.addEventListener("click", () => {
        const down = head.getAttribute("aria-sort") === "ascending";
        table.querySelectorAll("th").forEach(other => other.removeAttribute("aria-sort"));
        head.setAttribute("aria-sort", down ? "descending" : "ascending");
        const body = table.tBodies[0];
        const order = Array.from(body.rows).sort((a, b) => {
          const x = key(a, column), y = key(b, column);
          const result = typeof x === typeof y ? (x < y ? -1 : x > y ? 1 : 0) : typeof x === "number" ? -1 : 1;
          return down ? -result : result;
        });
        body.append(...order);
      });
    });
  }
  const reveal = () => {
    const target = location.hash ? document.getElementById(location.hash.slice(1)) : null;
    const set = target === null ? null : target.closest("details");
    if (set === null) return;
    if (target.hidden) { input.value = ""; filter(); }
    set.hidden = false;
    set.open = true;
    target.scrollIntoView({ block: "center" });
  };
  addEventListener("hashchange", reveal);
  reveal();
})();
)js";

} // namespace Tool
