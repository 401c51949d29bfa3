// The filter box of the front page: shows the pages that hold every word typed.
const box = document.getElementById("filter");
const count = document.getElementById("count");
const folders = [...document.querySelectorAll("#folders details")].map((folder) => ({
  folder,
  wasOpen: folder.open,
  pages: [...folder.querySelectorAll("li")],
}));

function filter() {
  const words = box.value.toLowerCase().split(/\s+/).filter(Boolean);
  let shown = 0;
  for (const { folder, wasOpen, pages } of folders) {
    let inFolder = 0;
    for (const page of pages) {
      page.hidden = !words.every((word) => page.dataset.words.includes(word));
      inFolder += !page.hidden;
    }
    folder.hidden = inFolder === 0;
    folder.open = words.length ? inFolder > 0 : wasOpen;
    shown += inFolder;
  }
  count.value = words.length ? (shown ? `${shown} found` : "nothing found") : "";
  const hash = words.length ? "#" + encodeURIComponent(box.value) : " ";
  history.replaceState(null, "", hash.trim() || location.pathname);
}

box.closest("p").hidden = false;
box.value = decodeURIComponent(location.hash.slice(1));
box.addEventListener("input", filter);
addEventListener("keydown", (event) => {
  if (event.key === "/" && event.target !== box) {
    event.preventDefault();
    box.focus();
  }
});
if (box.value) filter();
