// The script of the report page: search, sorting, and rows that are made where they are looked at.
#pragma once

namespace Tool
{

inline constexpr char kReportScript[] = R"js(
"use strict";
(() => {
  const input = document.getElementById("search");
  const count = document.getElementById("count");

  // A list grows where it is looked at: an empty element after it is as high as what is missing, and when it comes near
  // the window, it makes room for some more. What is folded is never near.
  const missing = new Map();
  const watch = new IntersectionObserver(entries => {
    for (const entry of entries) if (entry.isIntersecting) grow(entry.target);
  }, { rootMargin: "50%" });
  const grow = end => {
    const { list, lines } = missing.get(end);
    let piece = "";
    while (lines.length > 0 && piece.length < 10000) piece += lines.pop();
    list.insertAdjacentHTML("beforeend", piece);
    end.style.height = `${lines.length * 2.5}rem`;
    watch.unobserve(end);
    if (lines.length > 0) watch.observe(end);
  };
  const later = (list, end, lines) => {
    missing.set(end, { list, lines: lines.reverse() });
    end.style.height = `${lines.length * 2.5}rem`;
    watch.unobserve(end);
    watch.observe(end);
  };
  const endOf = element => {
    const end = document.createElement("div");
    element.after(end);
    return end;
  };
  // What a large page carries as text after the element that it belongs to.
  const carried = element => {
    const data = element.nextElementSibling;
    if (data === null || data.type !== "text/plain") return null;
    data.remove();
    return data.textContent;
  };
  const parts = document.getElementById("parts").textContent.split("\n");

  for (const element of document.querySelectorAll(".matrix, details > ul")) {
    const text = carried(element);
    if (text !== null) later(element, endOf(element), text.split("\n"));
  }

  const sets = Array.from(document.querySelectorAll(".set"), details => {
    const table = details.querySelector("table");
    const body = table.tBodies[0];
    const text = carried(table);
    const rows = text === null ? Array.from(body.rows, row => row.outerHTML) : text.replace(/<(\d+)>/g, (_, part) => parts[part]).split("\n").slice(0, -1);
    const texts = rows.map(row => row.replace(/<[^>]*>/g, "\n").toLowerCase());
    const order = Array.from(rows.keys());
    return { details, table, body, end: endOf(table), rows, texts, order, shown: text === null ? order : null };
  });
  const show = (set, shown) => {
    set.shown = shown;
    set.body.replaceChildren();
    later(set.body, set.end, shown.map(i => set.rows[i]));
  };
  const entities = { "&": "&amp;", "<": "&lt;", ">": "&gt;" };
  const filter = () => {
    const words = input.value.toLowerCase().replace(/[&<>]/g, c => entities[c]).split(/\s+/).filter(word => word);
    let found = 0;
    let all = 0;
    for (const set of sets) {
      const shown = set.order.filter(i => words.every(word => set.texts[i].includes(word)));
      if (set.shown === null || shown.length !== set.shown.length || shown.some((row, i) => row !== set.shown[i]))
        show(set, shown);
      set.details.hidden = words.length > 0 && shown.length === 0;
      if (words.length > 0 && shown.length > 0) set.details.open = true;
      found += shown.length;
      all += set.rows.length;
    }
    count.textContent = words.length > 0 ? `${found} of ${all} rules` : `${all} rules`;
  };
  let timer = 0;
  input.addEventListener("input", () => { clearTimeout(timer); timer = setTimeout(filter, 30); });
  document.querySelector(".search").hidden = false;
  filter();

  const sort = (set, column, down) => {
    const holder = document.createElement("tbody");
    holder.innerHTML = set.rows.join("");
    const keys = Array.from(holder.rows, row => row.cells[column].textContent.trim().toLowerCase());
    const compare = new Intl.Collator("en", { numeric: true }).compare;
    set.order.sort((a, b) => (down ? -1 : 1) * compare(keys[a], keys[b]) || a - b);
    filter();
  };
  for (const set of sets) {
    const heads = Array.from(set.table.tHead.rows[0].cells);
    heads.forEach((head, column) => {
      const button = document.createElement("button");
      button.type = "button";
      button.textContent = head.textContent;
      head.replaceChildren(button);
      button.addEventListener("click", () => {
        const down = head.ariaSort === "ascending";
        for (const other of heads) other.ariaSort = null;
        head.ariaSort = down ? "descending" : "ascending";
        sort(set, column, down);
      });
    });
  }

  // A link to a rule that is folded, filtered out or not made yet.
  const reveal = () => {
    const id = location.hash.slice(1);
    const start = new RegExp(`^<tr id="?${id}[" >]`);
    for (const set of /^\d+-\d+$/.test(id) ? sets : []) {
      const index = set.rows.findIndex(row => start.test(row));
      if (index < 0) continue;
      if (!set.shown.includes(index)) { input.value = ""; filter(); }
      set.details.open = true;
      while (document.getElementById(id) === null) grow(set.end);
      const row = document.getElementById(id);
      row.tabIndex = -1;
      row.focus({ preventScroll: true });
      row.scrollIntoView({ block: "center" });
    }
  };
  addEventListener("hashchange", reveal);
  reveal();
})();
)js";

} // namespace Tool
