// HtmlAssets: the style and the script of all pages.
#pragma once

namespace vxrun {

constexpr char kPageStyle[] = R"css(
:root{--paper:#fff;--ink:#1d2129;--dim:#5c6470;--line:#d8dce2;--soft:#f3f5f8;--link:#0b5cad;--ok:#1a7f4b;
--bad:#c4281c;--skip:#6b7280;--focus:#0b5cad;--c0:#0072b2;--c1:#d55e00;--c2:#00835f;--c3:#b0508a;--c4:#a87400;--c5:#3c7fb0}
@media(prefers-color-scheme:dark){:root{--paper:#14171c;--ink:#e4e7ec;--dim:#9aa3b0;--line:#353b45;--soft:#1e232b;
--link:#74b3f2;--ok:#4ac28a;--bad:#ff7b6b;--skip:#98a1ae;--focus:#74b3f2;--c0:#56a8e0;--c1:#f08a45;--c2:#3cc49c;
--c3:#dc8fc0;--c4:#e0ae3c;--c5:#8ac4ec}}
*{box-sizing:border-box}
[hidden]{display:none!important}
body{margin:0;background:var(--paper);color:var(--ink);font:15px/1.5 system-ui,sans-serif}
main{max-width:1240px;margin:0 auto;padding:8px 20px 40px}
footer{max-width:1240px;margin:0 auto;padding:0 20px 24px}
h1{font-size:26px;margin:24px 0 12px}h2{font-size:22px;margin:24px 0 12px}h3{font-size:17px;margin:28px 0 8px}
h4{font-size:15px;margin:20px 0 6px}
h1,h2,h3,.text,td:first-child,summary,dd{overflow-wrap:anywhere}
a{color:var(--link)}
:focus-visible{outline:2px solid var(--focus);outline-offset:1px}
.dim{color:var(--dim)}
.wide{overflow-x:auto;max-width:100%}.wide+.wide{margin-top:12px}
table{border-collapse:collapse;font-variant-numeric:tabular-nums}
th,td{text-align:left;padding:4px 16px 4px 0;border-bottom:1px solid var(--line);vertical-align:top}
td{min-width:44px;max-width:480px}td:first-child{min-width:110px}
th{font-weight:600;color:var(--dim);white-space:nowrap}
th button{all:unset;cursor:pointer}th button:focus-visible{outline:2px solid var(--focus)}
th button::after{content:" \2195";opacity:.5}
th[aria-sort=ascending] button::after{content:" \2191";opacity:1}
th[aria-sort=descending] button::after{content:" \2193";opacity:1}
table.vectors{width:100%}
.vectors td:first-child{min-width:140px}
.vectors tr:focus{outline:2px solid var(--focus);outline-offset:-2px;background:var(--soft)}
.badge{display:inline-block;padding:0 8px;border-radius:9px;font-size:13px;font-weight:600;white-space:nowrap;
border:1px solid currentColor;vertical-align:middle;line-height:1.5}
.ok{color:var(--ok)}.bad{color:var(--bad)}.skip{color:var(--skip)}
td.time{min-width:120px}
.bar{display:block;height:4px;min-width:1px;background:var(--c0);border-radius:2px;margin-top:2px}
.stack{display:flex;width:180px;height:14px;margin-top:4px;background:var(--soft);border-radius:3px;overflow:hidden}
.part{display:block;height:100%}.part.ok{background:var(--ok)}.part.bad{background:var(--bad)}
.part.busy{background:var(--c0)}.part.input{background:var(--line)}.part.room{background:var(--c4)}.part.buffer{background:var(--c3)}
.legend{display:flex;flex-wrap:wrap;gap:4px 16px;font-size:13px;color:var(--dim)}.legend>span{display:flex;gap:6px;align-items:center}
.legend i{width:14px;height:14px;border-radius:3px}
.tools{display:flex;flex-wrap:wrap;gap:8px 14px;align-items:center;margin:8px 0}
input,select,button{font:inherit;color:inherit}
input[type=search],select,button{background:var(--paper);border:1px solid var(--line);border-radius:6px;padding:3px 10px}
select{max-width:220px}
th button,th button:hover{background:none;border:0;padding:0}
button:hover{background:var(--soft)}
input[type=range]{accent-color:var(--c0);vertical-align:middle}
details{margin:6px 0}
summary{cursor:pointer;padding:4px 0}
.failure{border:1px solid var(--line);border-radius:8px;padding:2px 14px}
.failure[open]{padding-bottom:14px}
.text{font-family:ui-monospace,monospace;font-size:14px;border-left:3px solid var(--bad);padding:2px 10px;margin:8px 0}
.command{display:flex;gap:8px;align-items:flex-start;margin:8px 0}
.command code{flex:1;min-width:0;overflow-wrap:anywhere;background:var(--soft);padding:4px 10px;border-radius:6px}
code,pre{font:13px/1.5 ui-monospace,monospace}
pre{background:var(--soft);padding:10px;border-radius:6px;overflow:auto;max-height:360px;margin:4px 0}
.figures{display:flex;flex-wrap:wrap;gap:8px 28px;margin:12px 0}
dt{font-size:13px;color:var(--dim)}dd{margin:0;font-size:17px;font-variant-numeric:tabular-nums}
svg{display:block;height:auto;max-width:100%;margin:6px 0}svg svg{margin:0}
svg text{font:12px system-ui,sans-serif;fill:var(--ink)}svg .end{text-anchor:end}svg .strong{font-weight:600;font-size:14px}
svg .grid{stroke:var(--line);fill:none}svg .box{fill:var(--soft);stroke:var(--line)}
svg .edge{fill:none;stroke:var(--dim);stroke-width:1.5}svg .curve{fill:none;stroke-width:1.5;stroke-linejoin:round}
.c0{stroke:var(--c0)}.c1{stroke:var(--c1)}.c2{stroke:var(--c2)}.c3{stroke:var(--c3)}.c4{stroke:var(--c4)}.c5{stroke:var(--c5)}
svg .text-c0{fill:var(--c0)}svg .text-c1{fill:var(--c1)}svg .text-c2{fill:var(--c2)}svg .text-c3{fill:var(--c3)}
svg .text-c4{fill:var(--c4)}svg .text-c5{fill:var(--c5)}
svg .good{fill:var(--line)}svg .wrong{fill:var(--bad)}
figure{margin:0;min-width:0}figcaption{font-size:13px;color:var(--dim)}
.pictures{display:grid;grid-template-columns:repeat(auto-fit,minmax(min(100%,360px),1fr));gap:12px}
.frame{position:relative;overflow:hidden;background:var(--soft);border:1px solid var(--line)}
.frame img{display:block;width:100%;image-rendering:pixelated}
.frame .over{position:absolute;inset:0;clip-path:inset(0 0 0 calc(100% - var(--wipe,50%)))}
.zoomed img{transform:scale(16)}
.heat{display:flex;flex-wrap:wrap;gap:16px}.heat figure{flex:1 1 280px}
.heat canvas{display:block;width:100%;height:180px;border:1px solid var(--line);image-rendering:pixelated}
@media(max-width:600px){main{padding:4px 12px 24px}h1{font-size:22px}.command{flex-direction:column}
.command code{width:100%;flex:none}th,td{padding-right:10px}td.time{min-width:80px}}
)css";

constexpr char kPageScript[] = R"js(
"use strict";
document.addEventListener("DOMContentLoaded", () => {
  const all = (selector, root = document) => [...root.querySelectorAll(selector)];
  const typesInto = node => node.matches("input:not([type=range]),select,textarea");
  for (const node of all(".script")) node.hidden = false;

  // ---- Filters: rows keep all that is asked for.
  const tables = all("table.vectors").map(table => {
    const section = table.closest("section"), tools = section.querySelector(".tools");
    const search = tools.querySelector("input"), choices = all("select", tools);
    const body = table.tBodies[0], rows = [...body.rows];
    const apply = () => {
      const words = search.value.toLowerCase().split(/\s+/);
      const wanted = Object.fromEntries(choices.map(choice => [choice.name, choice.value]));
      let shown = 0;
      for (const row of rows) {
        const text = row.textContent.toLowerCase();
        row.hidden = !words.every(word => text.includes(word)) ||
            wanted.result && !row.dataset.tags.split(", ").includes(wanted.result) ||
            wanted.profile && row.dataset.profile !== wanted.profile;
        shown += !row.hidden;
      }
      tools.querySelector("output").textContent = `${shown} of ${rows.length}`;
    };
    const clear = () => {
      search.value = "";
      for (const choice of choices) choice.value = "";
      apply();
    };
    search.addEventListener("input", apply);
    for (const choice of choices) choice.addEventListener("change", apply);
    apply();

    // ---- Sorting: numbers by value, texts with the numbers in them by value.
    const order = new Intl.Collator("en", {numeric: true}).compare;
    const heads = all("th", table);
    heads.forEach((head, column) => {
      const button = document.createElement("button");
      button.append(...head.childNodes);
      head.append(button);
      button.addEventListener("click", () => {
        const down = head.getAttribute("aria-sort") === "ascending";
        for (const other of heads) other.removeAttribute("aria-sort");
        head.setAttribute("aria-sort", down ? "descending" : "ascending");
        const keyOf = row => row.cells[column].dataset.value ?? row.cells[column].textContent;
        const keys = new Map([...body.rows].map(row => [row, keyOf(row)]));
        const sorted = [...body.rows].sort((a, b) => order(keys.get(a), keys.get(b)));
        body.append(...(down ? sorted.reverse() : sorted));
      });
    });
    return {body, search, clear};
  });

  // ---- Failures open where a link leads to them.
  let opener = null;
  const openTarget = () => {
    const target = document.getElementById(decodeURIComponent(location.hash.slice(1)));
    if (!target || !target.matches("details")) return;
    target.open = true;
    target.scrollIntoView();
    target.querySelector("summary").focus({preventScroll: true});
  };
  const open = link => {
    opener = link.closest("tr");
    if (location.hash === link.hash) openTarget();
    else location.hash = link.hash;
  };
  document.addEventListener("click", event => {
    const link = event.target.closest("td a[href^='#']");
    if (!link) return;
    event.preventDefault();
    open(link);
  });
  addEventListener("hashchange", openTarget);

  // ---- Keys
  const step = by => {
    const rows = tables.flatMap(({body}) => [...body.rows]).filter(row => !row.hidden);
    const now = rows.indexOf(document.activeElement.closest("tr"));
    const row = rows[now < 0 ? (by > 0 ? 0 : rows.length - 1) : Math.min(Math.max(now + by, 0), rows.length - 1)];
    if (!row) return;
    row.focus();
    row.scrollIntoView({block: "nearest"});
  };
  document.addEventListener("keydown", event => {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const at = document.activeElement;
    if (event.key === "Escape") {
      const details = at.closest("details.failure[open]");
      if (details) {
        details.open = false;
        (opener ?? details.querySelector("summary")).focus();
      } else if (typesInto(at)) {
        for (const table of tables) if (table.search.closest(".tools").contains(at)) table.clear();
        at.blur();
      }
    } else if (typesInto(at)) {
      if (event.key === "Enter") step(1);
    } else if (event.key === "/" && tables.length) {
      event.preventDefault();
      tables[0].search.focus();
      tables[0].search.select();
    } else if (event.key === "j" || event.key === "k") {
      step(event.key === "j" ? 1 : -1);
    } else if (event.key === "Enter" && at.matches("tr")) {
      const link = at.querySelector("a");
      if (link) open(link);
    }
  });

  // ---- Commands
  for (const button of all(".copy")) {
    button.addEventListener("click", async () => {
      const code = button.parentNode.querySelector("code");
      try {
        await navigator.clipboard.writeText(code.textContent);
      } catch {
        getSelection().selectAllChildren(code);
        document.execCommand("copy");
      }
      button.textContent = "Copied";
    });
  }

  // ---- Pictures
  for (const wipe of all(".wipe")) {
    wipe.addEventListener("input", () =>
        wipe.closest(".viewer").style.setProperty("--wipe", wipe.value + "%"));
  }
  const firstWrong = picture => {
    const canvas = document.createElement("canvas");
    const width = canvas.width = picture.naturalWidth, height = canvas.height = picture.naturalHeight;
    const context = canvas.getContext("2d");
    context.drawImage(picture, 0, 0);
    const bytes = context.getImageData(0, 0, width, height).data;
    for (let i = 0; i < bytes.length; i += 4) {
      if (bytes[i] || bytes[i + 1] || bytes[i + 2]) return [i / 4 % width / width, Math.floor(i / 4 / width) / height];
    }
    return [0.5, 0.5];
  };
  for (const button of all(".zoom")) {
    button.addEventListener("click", () => {
      const viewer = button.closest(".viewer");
      const zoomed = viewer.classList.toggle("zoomed");
      button.setAttribute("aria-pressed", zoomed);
      const [x, y] = firstWrong(viewer.querySelector("img.diff"));
      for (const picture of all("img", viewer)) picture.style.transformOrigin = `${x * 100}% ${y * 100}%`;
    });
  }

  // ---- Wrong cells
  const isWrong = (cells, i) => parseInt(cells[i >> 2] ?? "0", 16) >> (3 - (i & 3)) & 1;
  const paint = (canvas, width, height, isSet) => {
    const style = getComputedStyle(document.documentElement);
    const context = canvas.getContext("2d");
    canvas.width = width;
    canvas.height = height;
    context.fillStyle = style.getPropertyValue("--line");
    context.fillRect(0, 0, width, height);
    context.fillStyle = style.getPropertyValue("--bad");
    for (let y = 0; y < height; ++y) {
      for (let x = 0; x < width; ++x) if (isSet(x, y)) context.fillRect(x, y, 1, 1);
    }
  };
  for (const heat of all(".heat")) {
    const columns = +heat.dataset.columns, rows = +heat.dataset.rows;
    const frames = heat.dataset.frames.split(", "), cells = heat.dataset.cells.split(", ");
    const slider = heat.querySelector("input"), output = heat.querySelector("output");
    const grid = heat.querySelector(".grid");
    const drawFrame = () => {
      output.textContent = frames[slider.value];
      paint(grid, columns, rows, (x, y) => isWrong(cells[slider.value], y * columns + x));
      grid.style.height = "auto";
      grid.style.aspectRatio = `${columns} / ${rows}`;
      grid.style.maxWidth = `${320 * columns / rows}px`;
    };
    const draw = () => {
      if (!heat.closest("details").open) return;
      paint(heat.querySelector(".time"), frames.length, columns * rows, (x, y) => isWrong(cells[x], y));
      drawFrame();
    };
    slider.addEventListener("input", drawFrame);
    heat.closest("details").addEventListener("toggle", draw);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", draw);
    draw();
  }
  openTarget();
});
)js";

}  // namespace vxrun
