// Searches the records of index.js for sections that hold each word that was typed. Where the words
// stand in a title they count more, most of all where they are the title; in the title of the page,
// which its sections share, they count least.
"use strict";
(function () {
    const input = document.getElementById("search");
    const found = document.getElementById("found");
    const contents = document.getElementById("contents");
    const most = 30;

    function score(record, words) {
        let sum = 0;
        for (const word of words) {
            const title = record.t.toLowerCase();
            if (title === word) {
                sum += 100;
            } else if (title.startsWith(word)) {
                sum += 40;
            } else if (title.includes(word)) {
                sum += 20;
            } else if (record.b.toLowerCase().includes(word)) {
                sum += 5;
            } else if (record.p.toLowerCase().includes(word)) {
                sum += 1;
            } else {
                return 0;
            }
        }
        return sum;
    }

    function search(text) {
        const words = text.toLowerCase().replace(/\(\)/g, "").split(/\s+/).filter(Boolean);
        if (words.length === 0) {
            return [];
        }
        return searchIndex.map(record => ({record, points: score(record, words)}))
            .filter(each => each.points > 0)
            .sort((a, b) => b.points - a.points)
            .slice(0, most)
            .map(each => each.record);
    }

    function show() {
        const records = search(input.value);
        found.replaceChildren(...records.map(record => {
            const entry = document.createElement("li");
            const link = document.createElement("a");
            const page = document.createElement("small");
            link.href = document.body.dataset.root + record.u;
            link.textContent = record.t;
            page.textContent = record.p === record.t ? "" : record.p;
            link.append(page);
            entry.append(link);
            return entry;
        }));
        if (records.length === 0) {
            found.textContent = "nothing found";
        }
        found.hidden = input.value.trim() === "";
    }

    input.addEventListener("input", show);
    input.addEventListener("keydown", event => {
        if (event.key === "Escape") {
            input.value = "";
            show();
        } else if (event.key === "Enter" && found.querySelector("a")) {
            location.href = found.querySelector("a").href;
        }
    });
    document.addEventListener("keydown", event => {
        if (event.key === "/" && document.activeElement !== input) {
            event.preventDefault();
            input.focus();
        }
    });
    found.addEventListener("click", () => {
        found.hidden = true;
    });
    contents.open = window.matchMedia("(min-width: 60rem)").matches;
})();
