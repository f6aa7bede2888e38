// The gallery's page. A script that is loaded last hands the sets over; chunks of items follow as they come into
// sight, and the texts that are searched once the page is open. The address after "#" says what is shown, as a
// form's fields do; docs/gallery.md has them.
//
// All texts come from strangers: they reach the page as text, never as markup, and paths are encoded name by name.
"use strict";

const gallery = (() => {
  const DATA = "index-data/";
  const LOOSE = "Anonymous";
  const GAP = 6;
  const HEADING = 46;
  const SECTIONED = 2000; // a set of more items is shown month by month, as the timeline is
  const FOUND = 60; // of what a search finds, months are put together until they have so many items
  const LOADERS = 8;
  const AHEAD = 5; // months so many windows away are read already

  const byId = (id) => document.getElementById(id);
  const [main, grid, search, viewer, stage, details] =
    ["main", "grid", "search", "viewer", "stage", "details"].map(byId);

  // ---- Language

  const language = navigator.languages.map((name) => name.slice(0, 2)).find((name) => galleryTexts[name]) || "en";
  const texts = galleryTexts[language];
  const plural = new Intl.PluralRules(language);
  const numbers = new Intl.NumberFormat(language);
  const collator = new Intl.Collator(language, { numeric: true, sensitivity: "base" });
  const monthName = new Intl.DateTimeFormat(language, { year: "numeric", month: "long", timeZone: "UTC" });
  const shortMonth = new Intl.DateTimeFormat(language, { month: "short", timeZone: "UTC" });
  const cameraTime = new Intl.DateTimeFormat(language, { dateStyle: "long", timeStyle: "short", timeZone: "UTC" });
  const serviceTime = new Intl.DateTimeFormat(language, { dateStyle: "long", timeStyle: "short" });

  const say = (key, values = {}) => texts[key].replace(/\{(\w+)\}/g, (_, name) => values[name]);
  const count = (key, n) =>
    texts[key][plural.select(n) === "one" ? 0 : 1].replace("{n}", () => numbers.format(n));
  const dateOf = (text) => new Date(text.replace(" ", "T") + "Z");
  /** The moment in the name of an older version. */
  const momentOf = (path) =>
    new Date(path.replace(/.*\/(\d{4})(\d\d)(\d\d)T(\d\d)(\d\d)(\d\d)Z.*/, "$1-$2-$3T$4:$5:$6Z"));
  const monthText = (month, form = monthName) => (month ? form.format(dateOf(`${month}-01 00:00:00`)) : say("noDate"));

  /** The text without what a search overlooks, as the generator writes texts: case, accents, forms of a letter.
      What Cherokee has for both cases are its capital letters. */
  const LETTERS = { ς: "σ", ł: "l", ø: "o", đ: "d", æ: "ae", œ: "oe" };
  const searchKey = (text) =>
    text.normalize("NFKD").toLowerCase().toUpperCase().replace(/\p{M}+/gu, "")
      .replace(/[^Ꭰ-ᏽ]+/g, (part) => part.toLowerCase()).replace(/[ςłøđæœ]/g, (letter) => LETTERS[letter]);

  // ---- Elements

  /** An element with attributes, and with texts and elements inside. */
  const element = (name, attributes = {}, ...children) => {
    const made = document.createElement(name);
    for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
    made.append(...children);
    return made;
  };
  const userText = (name, className, text) => element(name, { class: className, dir: "auto" }, text);
  /** A path relative to the page as an address that can name nothing else. */
  const address = (path) => "./" + path.split("/").map(encodeURIComponent).join("/");
  const link = (fields) => "#" + new URLSearchParams(Object.entries(fields).filter(([, value]) => value));

  const tell = (text) => { byId("summary").textContent = missing ? say("missing") : text; };

  // ---- Data

  const sets = new Map();
  const chunks = new Map();
  const searched = new Map(); // by chunk: the photos' ids, the items' texts, the ends of these
  const photos = new Set();
  const shared = new Set(); // of photos those in several sets
  let searchFiles = [];
  let missing = false;

  class Item {
    constructor(set, line) {
      this.set = set;
      [this.id, , this.taken, this.width, this.height, this.title, this.file, this.thumbnail, this.uploaded,
        this.updated, this.isVideo, this.description, this.tags, this.versions = []] = line;
    }
    get photo() { return this.id.slice(0, -this.set.id.length - 1); }
    get month() { return this.taken.slice(0, 7); }
    get name() { return this.title || this.file || say("untitled"); }
    get path() { return this.set.path(this.file); }
    get aspect() {
      return this.width && this.height ? Math.min(Math.max(this.width / this.height, 0.4), 3.2) : 4 / 3;
    }
  }

  const readSet = ([id, , title, folder, cover, coverFile, total, parts]) => {
    const name = id === LOOSE ? say("loose") : title || folder;
    const set = {
      id, cover, coverFile, total, name,
      key: searchKey(name),
      path: (name) => (folder ? `${folder}/${name}` : name),
    };
    set.chunks = parts.map(([name, months]) => ({
      name, set, months: new Map(months),
      fresh: new Map(months.map(([month, n, again = 0]) => [month, n - again])),
    }));
    for (const chunk of set.chunks) chunks.set(chunk.name, chunk);
    sets.set(id, set);
  };

  const load = (file) =>
    (file.promise ??= new Promise((done) => {
      const script = element("script", { src: `${DATA}${file.name}.js` });
      script.onload = script.onerror = ({ type }) => {
        script.remove();
        missing ||= type === "error" || Boolean(file.set && !file.items);
        file.items ??= [];
        if (missing) tell();
        done();
      };
      document.head.append(script);
    }));

  /** Loads chunks or search files, a few at a time, and says after each how far it is, in percent. */
  const loadAll = async (wanted, onPart = () => {}) => {
    const waiting = wanted.filter((file) => !file.items).reverse();
    const total = waiting.length;
    let done = 0;
    const work = async () => {
      for (let file; (file = waiting.pop());) {
        await load(file);
        if (++done < total) onPart(Math.floor((done / total) * 100));
      }
    };
    await Promise.all(Array.from({ length: LOADERS }, work));
  };

  const loadTexts = (onPart) => loadAll(searchFiles, onPart);

  const compare = (a, b) => (a < b ? -1 : a > b ? 1 : 0);
  const by = (field, sign) => (a, b) =>
    !a[field] - !b[field] || sign * compare(a[field], b[field]) || compare(a.id, b.id);
  const orders = {
    takenNewest: by("taken", -1), takenOldest: by("taken", 1),
    uploadedNewest: by("uploaded", -1), uploadedOldest: by("uploaded", 1),
    byTitle: (a, b) => collator.compare(a.name, b.name) || compare(a.id, b.id),
  };

  /** The section's items in order, a photo that is in several sets once. */
  const itemsOf = ({ chunks: wanted, months }, { order, words }) => {
    const keep = (chunk) => (item, at) => months.has(item.month) && (!words.length || chunk.found.has(at));
    const all = wanted.flatMap((chunk) => (chunk.items || []).filter(keep(chunk))).sort(orders[order]);
    const known = new Set();
    return all.filter(({ photo }) => known.size < known.add(photo).size);
  };

  // ---- What is shown

  let state = {};
  let view = { sections: [] };
  const scrolled = new Map();

  const readState = () => {
    const fields = Object.fromEntries(new URLSearchParams(location.hash.slice(1)));
    if (!Object.hasOwn(orders, fields.sort)) delete fields.sort;
    return fields;
  };
  const keyOf = ({ view, set, q, sort }) => JSON.stringify([view, set, q, sort]);

  /** The places of the lines that hold all words. */
  const linesWith = ({ text, ends }, [word, ...others]) => {
    if (!word) return [...ends.keys()];
    const places = [];
    let at = 0;
    for (let hit = text.indexOf(word); hit >= 0; hit = text.indexOf(word, ends[at++])) {
      while (ends[at] < hit) ++at;
      const line = others.length ? text.slice(at && ends[at - 1], ends[at]) : "";
      if (others.every((other) => line.includes(other))) places.push(at);
    }
    return places;
  };

  /** The chunk's months with the numbers of photos whose texts hold all words, those counted left out; chunk.found
      has the places of all whose texts do. None of a chunk whose texts are not read. */
  const foundIn = (chunk, { words, counted, found }) => {
    const known = searched.get(chunk.name);
    const months = new Map();
    if (!known || found.has(chunk)) return found.get(chunk) || months;
    found.set(chunk, months);
    const places = linesWith(known, words.filter((word) => !chunk.set.key.includes(word)));
    chunk.found = new Set(places);
    let at = 0;
    let end = 0;
    for (const [month, total] of chunk.months) {
      let fresh = 0;
      for (end += total; places[at] < end; ++at) {
        const photo = known.photos[places[at]];
        fresh += !counted.has(photo);
        if (shared.has(photo)) counted.add(photo);
      }
      if (fresh) months.set(month, fresh);
    }
    return months;
  };

  /** One section for each month of the view's sets, or of what its words find in them. */
  const monthSections = (mine) => {
    const sections = new Map();
    for (const chunk of mine.scope.flatMap((set) => set.chunks)) {
      const all = mine.scope.length > 1 ? chunk.fresh : chunk.months;
      for (const [month, total] of mine.words.length ? foundIn(chunk, mine) : all) {
        const part = sections.get(month) ||
          { month, months: new Set([month]), total: 0, chunks: [], rows: [], top: 0, height: 0 };
        sections.set(month, part);
        part.total += total;
        part.chunks.push(chunk);
      }
    }
    // Those without a date come last either way.
    const sign = mine.order === "takenOldest" ? 1 : -1;
    return [...sections.values()].sort((a, b) => !a.month - !b.month || sign * compare(a.month, b.month));
  };

  const sumOf = (sections) => sections.reduce((sum, { total }) => sum + total, 0);

  /** Neighbouring sections put together until they have so many items. */
  const together = (sections, items) => {
    const larger = [];
    for (const part of sections) {
      const last = larger.at(-1);
      if (!last || last.total >= items) {
        larger.push(part);
      } else {
        last.months.add(part.month);
        last.total += part.total;
        last.chunks = [...new Set([...last.chunks, ...part.chunks])];
      }
    }
    return larger;
  };

  const fill = (part, mine, onPart) =>
    (part.loading ??= loadAll(part.chunks, onPart).then(() => { part.items = itemsOf(part, mine); }));

  const show = () => {
    const order = state.sort || (state.set ? "takenOldest" : "takenNewest");
    const only = sets.get(state.set);
    const scope = only ? [only] : [...sets.values()];
    const words = searchKey(state.q || "").split(/\s+/).filter(Boolean).sort((a, b) => b.length - a.length);
    // In parts that are loaded as they come into sight, with headings or without; or all at once.
    const inParts = order.startsWith("taken") && Boolean(state.q || !only || only.total > SECTIONED);
    const above = inParts && !state.q ? HEADING : 0;
    view = {
      key: keyOf(state), order, scope, words, inParts, above, sections: [], width: 0, rows: new Map(),
      found: new Map(), counted: new Set(),
    };
    grid.replaceChildren();
    grid.style.height = 0;
    byId("sets").replaceChildren();
    const here = !state.set && !state.q && (state.view ? "toAll" : "toSets");
    for (const id of ["toSets", "toAll"]) byId(id).ariaCurrent = id === here ? "page" : null;
    for (const id of ["sort", "jump", "rail"]) byId(id).hidden = true;
    if (document.activeElement !== search) search.value = state.q || "";
    const names = state.q ? [say("found", { q: state.q })] : [];
    if (only) names.push(only.name);
    const name = names.join(" · ") || say(state.view ? "timeline" : "title");
    byId("heading").textContent = name;
    document.title = name.replace(/[\u200e\u200f\u202a-\u202e\u2066-\u2069]/g, "");

    if (!state.view && !state.set && !state.q) {
      showSets();
      return;
    }
    byId("sort").hidden = false;
    byId("sort").value = order;
    view.ready = showItems();
  };

  const cardOf = (set) => {
    const cover = element("span", { class: "cover" });
    if (set.cover) {
      const image = element("img", { src: address(set.cover), alt: "", loading: "lazy", decoding: "async" });
      image.onerror = () => image.remove();
      cover.append(image);
      if (set.coverFile) sharpenWhenSeen(cover, address(set.coverFile));
    }
    return element("li", {}, element("a", { href: link({ set: set.id }) }, cover,
      userText("span", "name", set.name), userText("span", "count", count("item", set.total))));
  };

  const showSets = () => {
    byId("sets").append(...view.scope.map(cardOf));
    const months = monthSections(view);
    const years = months.map(({ month }) => month.slice(0, 4)).filter(Boolean).sort();
    const parts = [count("item", sumOf(months)), count("set", sets.size - sets.has(LOOSE))];
    if (years.length) parts.push(years[0] === years.at(-1) ? years[0] : `${years[0]} – ${years.at(-1)}`);
    tell(sets.size ? parts.join(" · ") : say("empty"));
    scrollTo(0, scrolled.get(view.key) || 0);
  };

  const showItems = async () => {
    const mine = view;
    if (mine.words.length) {
      const found = mine.scope.filter(({ id, key }) => id !== LOOSE && mine.words.every((word) => key.includes(word)));
      if (!state.set) byId("sets").append(...found.slice(0, 24).map(cardOf));
      // What the first files have is shown at once.
      let early = !mine.inParts;
      await loadTexts((n) => {
        if (view !== mine) return;
        early ||= showParts(mine);
        tell(say("loading", { n }));
      });
      await early;
    }
    await showParts(mine);
  };

  const showParts = async (mine) => {
    let sections = monthSections(mine);
    const tellCount = () => {
      const total = sumOf(sections);
      tell(total ? count("item", total) : say(mine.words.length ? "noTitles" : "empty"));
    };
    if (mine.inParts) tellCount();
    if (!mine.above) {
      sections = together(sections, mine.inParts ? FOUND : Infinity);
      const [first] = sections;
      if (first) await fill(first, mine, (n) => { if (view === mine && !mine.inParts) tell(say("loading", { n })); });
      if (first) first.total = first.items.length;
    }
    if (view !== mine) return;
    if (!mine.inParts) tellCount();
    const held = document.activeElement.dataset.item;
    grid.replaceChildren();
    mine.rows.clear();
    mine.sections = sections;
    if (mine.above) showTimeline();
    layOut();
    if (held) tileFor(held)?.focus({ preventScroll: true });
  };

  // ---- The grid: rows of pictures of one height; those near the window are in it

  const rowHeight = (width) => Math.min(Math.max(width / 6.5, 104), 250);

  /** Rows that fill the width; the last one keeps the usual height. */
  const rowsOf = (items, width, usual) => {
    const rows = [];
    let begin = 0;
    let sum = 0;
    let top = 0;
    for (let end = 0; end <= items.length; ++end) {
      const room = width - GAP * (end - begin - 1);
      if (end < items.length && (end === begin || sum * usual < room)) {
        sum += items[end].aspect;
        continue;
      }
      if (end === begin) break;
      const height = Math.min(room / sum, usual * (end === items.length ? 1 : 1.6));
      rows.push({ top, height, begin, end });
      top += height + GAP;
      begin = end;
      sum = end < items.length ? items[end].aspect : 0;
    }
    return rows;
  };

  const measure = (part, width) => {
    const usual = rowHeight(width);
    const { above } = view;
    if (part.items) {
      part.rows = rowsOf(part.items, width, usual);
      const last = part.rows.at(-1);
      part.height = above + (last ? last.top + last.height + GAP : 0);
    } else {
      part.height = above + Math.ceil((part.total * 1.4 * usual) / width) * (usual + GAP);
    }
  };

  const layOut = (changed = view.sections) => {
    const width = grid.clientWidth;
    if (!width) return;
    if (width !== view.width) changed = view.sections;
    const start = scrollY - grid.offsetTop + 60;
    const first = view.sections.find((part) => part.top <= start && start < part.top + part.height);
    const before = first?.top;
    view.width = width;
    for (const part of changed) {
      measure(part, width);
      for (const [key, row] of view.rows) if (row.part === part) { row.node.remove(); view.rows.delete(key); }
    }
    let top = 0;
    for (const part of view.sections) {
      part.top = top;
      top += part.height;
    }
    grid.style.height = `${top}px`;
    // What the window begins with stays where it is while what is above it gets its true height.
    if (first && view.placed) scrollBy(0, first.top - before);
    if (!view.placed) place();
    render();
  };

  /** Where a view begins: at the month of the address, or where it was left. */
  const place = () => {
    view.placed = true;
    const part = state.at && view.sections.find(({ month }) => month.startsWith(state.at));
    scrollTo(0, part ? grid.offsetTop + part.top - 60 : scrolled.get(view.key) || 0);
  };

  const tileOf = (item, left, width) => {
    const told = [item.name];
    if (item.isVideo) told.push(say("video"));
    if (item.taken) told.push(cameraTime.format(dateOf(item.taken)));
    const tile = element("a", {
      class: item.isVideo ? "tile film" : "tile",
      href: link({ ...state, at: "", item: item.id }),
      "aria-label": told.join(", "),
      "data-item": item.id,
    });
    tile.style.left = `${left}px`;
    tile.style.width = `${width}px`;
    const bare = () => tile.classList.add("bare");
    if (item.thumbnail) {
      const image = element("img", { src: address(item.set.path(item.thumbnail)), alt: "", decoding: "async" });
      image.onerror = () => { image.remove(); bare(); };
      tile.append(image);
    } else {
      bare();
    }
    tile.append(userText("span", "caption", item.name));
    if (!item.isVideo) sharpenWhenSeen(tile, address(item.path));
    return tile;
  };

  const rowNode = (part, row) => {
    const node = element("div", { class: "row" });
    if (!row) {
      node.append(element("h2", {}, monthText(part.month), " ",
        element("span", {}, count("item", part.items ? part.items.length : part.total))));
    } else if (row === part) {
      node.classList.add("waiting");
    } else {
      let left = 0;
      for (const item of part.items.slice(row.begin, row.end)) {
        const width = item.aspect * row.height;
        node.append(tileOf(item, left, width));
        left += width + GAP;
      }
    }
    return node;
  };

  const render = () => {
    const from = scrollY - grid.offsetTop;
    const below = from + innerHeight;
    // Of what is found, what is seen comes first.
    const margin = view.rows.size || !view.words.length ? innerHeight : 0;
    const keys = new Set();
    let after = null;
    const want = (part, row, name, above, height) => {
      const top = part.top + above;
      if (top + height < from - margin || top > below + margin) return;
      const key = `${part.month} ${name}`;
      let known = view.rows.get(key);
      if (!known) {
        known = { part, node: rowNode(part, row) };
        view.rows.set(key, known);
        if (after) after.after(known.node);
        else grid.prepend(known.node);
      }
      Object.assign(known.node.style, { top: `${top}px`, height: `${height}px` });
      keys.add(key);
      after = known.node;
    };
    let [current] = view.sections;
    for (const part of view.sections) {
      if (part.top <= from + 80) current = part;
      if (part.top + part.height < from - AHEAD * margin || part.top > below + AHEAD * margin) continue;
      if (!part.items) fetchSection(part);
      const { above } = view;
      if (above) want(part, null, "heading", 0, HEADING);
      if (part.items) part.rows.forEach((row) => want(part, row, row.begin, above + row.top, row.height));
      else want(part, part, "waiting", above, part.height - above - GAP);
    }
    for (const [key, { node }] of view.rows) if (!keys.has(key)) { node.remove(); view.rows.delete(key); }
    if (!margin && after) requestAnimationFrame(() => setTimeout(render));
    if (view.above && current) showCurrent(current.month);
  };

  const fetchSection = async (part) => {
    if (part.loading) return;
    const mine = view;
    await fill(part, mine);
    if (view === mine) layOut([part]);
  };

  // ---- Timeline

  const showTimeline = () => {
    const to = (month) => link({ ...state, item: "", at: month });
    const rail = byId("rail");
    const jump = byId("jump");
    rail.replaceChildren();
    jump.replaceChildren();
    let group = null;
    for (const { month, total } of view.sections) {
      const year = month.slice(0, 4);
      if (!year) continue;
      if (group?.label !== year) {
        rail.append(element("a", { class: "year", href: to(month), "data-year": year }, year));
        jump.append(group = element("optgroup", { label: year }));
      }
      const name = monthText(month, shortMonth);
      const entry = element("a", { class: "month", href: to(month), "data-month": month }, name);
      entry.title = count("item", total);
      rail.append(entry);
      group.append(element("option", { value: month }, `${monthText(month)} (${numbers.format(total)})`));
    }
    rail.hidden = jump.hidden = false;
  };

  const showCurrent = (month) => {
    if (view.current === month) return;
    view.current = month;
    byId("jump").value = month;
    for (const entry of byId("rail").children) {
      entry.classList.toggle("shown", entry.dataset.month?.slice(0, 4) === month.slice(0, 4));
      const isHere = entry.dataset.month === month;
      entry.ariaCurrent = isHere || null;
      if (isHere) entry.scrollIntoView({ block: "nearest" });
    }
  };

  // ---- Sharper tiles: thumbnails are small, so when scrolling rests the pictures themselves are scaled down. What
  // draws them at once, in any other way, stays in the browser's memory at full size.

  const inSight = new Set();
  const seen = new IntersectionObserver((entries) => {
    for (const { target, isIntersecting } of entries) inSight[isIntersecting ? "add" : "delete"](target);
    rest();
  });
  const sharpenWhenSeen = (tile, source) => {
    tile.picture = source;
    seen.observe(tile);
  };

  let restTimer = 0;
  let sharpening = 0;
  const rest = () => {
    clearTimeout(restTimer);
    restTimer = setTimeout(sharpen, 250);
  };
  const sharpen = () => {
    for (const tile of inSight) {
      if (sharpening >= 2 || viewer.open) return;
      inSight.delete(tile);
      seen.unobserve(tile);
      if (!tile.isConnected) continue;
      ++sharpening;
      sharpenTile(tile).finally(() => {
        --sharpening;
        sharpen();
      });
    }
  };
  const sharpenTile = async (tile) => {
    const scale = Math.min(devicePixelRatio, 2);
    const { clientWidth: width, clientHeight: height } = tile;
    const thumbnail = tile.querySelector("img");
    if (thumbnail && thumbnail.naturalWidth >= width * scale * 0.8) return;
    const image = new Image();
    try {
      await new Promise((done, fail) => Object.assign(image, { onload: done, onerror: fail, src: tile.picture }));
      const fit = scale * Math.max(width / image.naturalWidth, height / image.naturalHeight);
      const bitmap = await createImageBitmap(image, {
        resizeWidth: Math.ceil(image.naturalWidth * fit), resizeHeight: Math.ceil(image.naturalHeight * fit),
        resizeQuality: "high",
      });
      const canvas = element("canvas", { width: bitmap.width, height: bitmap.height, "aria-hidden": true });
      canvas.getContext("bitmaprenderer").transferFromImageBitmap(bitmap);
      if (thumbnail) thumbnail.after(canvas);
      else tile.prepend(canvas);
    } catch {
      // No picture that this browser knows: the thumbnail stays.
    }
  };

  // ---- One picture large

  let shown = null;
  let openedHere = false;

  const placeOf = (item) => {
    for (const part of view.sections) {
      const at = part.items?.findIndex(({ photo }) => photo === item.photo) ?? -1;
      if (at >= 0) return { part, at, row: part.rows.find(({ begin, end }) => begin <= at && at < end) };
    }
    return null;
  };

  /** The view's item beside the item; where its section ends, one of the next section. */
  const neighbour = async (item, step) => {
    const found = placeOf(item);
    if (!found) return null;
    const parts = view.sections;
    let beside = found.part.items[found.at + step];
    for (let at = parts.indexOf(found.part) + step; !beside && parts[at]; at += step) {
      await fill(parts[at], view);
      beside = parts[at].items.at(step > 0 ? 0 : -1);
    }
    return beside;
  };

  const openItem = async (id) => {
    const set = sets.get(id.slice(id.indexOf("_") + 1)); // a photo's own id has no "_"
    if (!set) { closeViewer(); return; }
    const find = () => set.chunks.flatMap((chunk) => chunk.items || []).find((entry) => entry.id === id);
    await view.ready;
    const item = find() || (await loadAll(set.chunks).then(find));
    if (!item || state.item !== id) return;
    const part = view.sections.find(({ months }) => months.has(item.month));
    if (part && !part.items) await fetchSection(part);
    showItem(item);
  };

  const showItem = (item) => {
    shown = item;
    const rough = item.thumbnail && address(item.set.path(item.thumbnail));
    const file = address(item.path);
    const media = item.isVideo
      ? element("video", { src: file, controls: "", preload: "metadata", playsinline: "", "aria-label": item.name })
      : element("img", { src: file, alt: item.name, draggable: "false" });
    const under = rough ? [element("img", { class: "rough", src: rough, alt: "" })] : [];
    stage.replaceChildren(...(item.isVideo ? [] : under), media);
    if (item.isVideo && rough) media.poster = rough;
    media.onload = () => stage.querySelector(".rough")?.remove();
    media.onerror = () => {
      stage.replaceChildren(...under, element("p", { class: "problem" }, say("cannotShow")));
      under[0]?.classList.remove("rough");
    };
    showDetails(item);
    loadTexts().then(() => { if (shown === item && shared.has(item.photo)) showDetails(item); });
    viewer.setAttribute("aria-label", item.name);
    if (!viewer.open) viewer.showModal();
    for (const [id, step] of [["previous", -1], ["next", 1]]) {
      neighbour(item, step).then((beside) => {
        if (shown !== item) return;
        byId(id).disabled = !beside;
        if (beside && !beside.isVideo) new Image().src = address(beside.path);
      });
    }
  };

  /** The sets that hold the item's photo, its own first, as far as their texts are read. */
  const setsWith = ({ set, photo }) => {
    const has = (other) => other.chunks.some(({ name }) => searched.get(name)?.photos.includes(photo));
    return [set, ...[...sets.values()].filter((other) => other !== set && shared.has(photo) && has(other))];
  };

  const showDetails = (item) => {
    const list = element("dl");
    const add = (key, ...values) => {
      if (!values.length) return;
      list.append(element("dt", {}, say(key)), ...values.map((value) => element("dd", {}, value)));
    };
    const date = (text, form) => (text ? [form.format(dateOf(text))] : []);
    add("taken", ...date(item.taken, cameraTime));
    add("uploaded", ...date(item.uploaded, serviceTime));
    add("updated", ...date(item.updated, serviceTime));
    add("inSet", ...setsWith(item).map((set) =>
      element("a", { href: link({ set: set.id, item: `${item.photo}_${set.id}` }) }, userText("bdi", "", set.name))));
    if (item.tags.length) {
      add("tags", element("div", { class: "tags" }, ...item.tags.map((tag) =>
        element("a", { href: link({ q: tag }), dir: "auto" }, tag))));
    }
    add("file", userText("bdi", "", item.file),
      element("a", { href: address(item.path), target: "_blank", rel: "noopener" }, say("open")));
    add("versions", ...item.versions.map((version) =>
      element("a", { href: address(item.set.path(version)), target: "_blank", rel: "noopener" },
        say("until", { date: serviceTime.format(momentOf(version)) }))));
    const text = item.description ? [userText("p", "text", item.description)] : [];
    details.replaceChildren(userText("h2", "", item.name), ...text, list);
  };

  const turn = async (step) => {
    const beside = shown && (await neighbour(shown, step));
    if (!beside) return;
    state = { ...state, item: beside.id };
    history.replaceState(null, "", link(state));
    showItem(beside);
  };

  /** Closes the large view in the address: where it was opened from the page, by going back. */
  const leaveItem = () => {
    if (openedHere) history.back();
    else location.hash = link({ ...state, item: "" });
  };

  const closeViewer = () => {
    if (!shown) return;
    viewer.close();
    stage.replaceChildren(); // ends a film
    const item = shown;
    shown = null;
    if (document.activeElement !== search) focusItem(item);
    rest();
  };

  const turnDetails = (on = details.hidden) => {
    details.hidden = !on;
    byId("info").ariaExpanded = on;
  };

  // ---- Focus among the tiles

  const tileFor = (id) => grid.querySelector(`[data-item="${CSS.escape(id)}"]`);

  const focusItem = (item) => {
    const found = placeOf(item);
    if (!found?.row) return;
    const top = grid.offsetTop + found.part.top + view.above + found.row.top;
    const below = top + found.row.height - innerHeight;
    if (top < scrollY + 70) scrollTo(0, top - 70);
    else if (below > scrollY) scrollTo(0, below + 12);
    render();
    tileFor(item.id)?.focus({ preventScroll: true });
  };

  /** Arrow keys: beside in reading order, or the nearest tile of the row above or below. */
  const moveFocus = async (tile, key) => {
    if (key === "ArrowLeft" || key === "ArrowRight") {
      const [photo] = tile.dataset.item.split("_");
      const beside = await neighbour({ photo }, key === "ArrowRight" ? 1 : -1);
      if (beside) focusItem(beside);
      return;
    }
    const middle = (node) => node.offsetLeft + node.offsetWidth / 2;
    const rows = [...grid.children].filter((row) => row.querySelector(".tile"));
    const row = rows[rows.indexOf(tile.parentNode) + (key === "ArrowDown" ? 1 : -1)];
    const nearest = [...(row?.children || [])].sort((a, b) =>
      Math.abs(middle(a) - middle(tile)) - Math.abs(middle(b) - middle(tile)))[0];
    if (!nearest) return;
    nearest.focus({ preventScroll: true });
    nearest.scrollIntoView({ block: "nearest" });
  };

  // ---- The address, and what the reader does

  const route = () => {
    const next = readState();
    const was = state;
    state = next;
    const changes = keyOf(next) !== view.key;
    if (changes) {
      if (view.key) scrolled.set(view.key, was.item ? scrolled.get(view.key) : scrollY);
      show();
    } else if (next.at && next.at !== was.at) {
      place();
      render();
    }
    if (next.item) {
      openedHere = !changes && (openedHere || !was.item);
      openItem(next.item);
    } else {
      openedHere = false;
      closeViewer();
    }
  };

  const searchFor = (words) => {
    const next = link({ ...state, item: "", at: "", q: words });
    // Typing is one step back, not one for each letter.
    if (state.q && words) history.replaceState(null, "", next);
    else history.pushState(null, "", next);
    route();
  };

  const start = () => {
    document.documentElement.lang = language;
    for (const node of document.querySelectorAll("[data-text]")) node.textContent = say(node.dataset.text);
    for (const node of document.querySelectorAll("[data-label]")) {
      node.setAttribute("aria-label", say(node.dataset.label));
      if (node.tagName === "BUTTON") node.title = say(node.dataset.label);
    }
    search.placeholder = say("search");
    history.scrollRestoration = "manual";

    addEventListener("hashchange", route);
    addEventListener("scroll", () => { render(); rest(); }, { passive: true });
    new ResizeObserver(() => { if (grid.clientWidth !== view.width) layOut(); }).observe(grid);

    addEventListener("load", () => setTimeout(loadTexts));
    search.addEventListener("focus", () => loadTexts());
    search.addEventListener("input", () => searchFor(search.value.trim()));
    for (const [id, field] of [["sort", "sort"], ["jump", "at"]]) {
      byId(id).addEventListener("change", ({ target }) => {
        location.hash = link({ ...state, at: "", [field]: target.value });
      });
    }
    byId("rail").addEventListener("click", (event) => {
      if (event.target.hash !== location.hash) return;
      event.preventDefault(); // the address says nothing new, but the window has moved on
      place();
      render();
    });
    byId("skip").addEventListener("click", (event) => {
      event.preventDefault();
      (grid.querySelector(".tile") || byId("sets").querySelector("a") || main).focus();
    });

    const actions = { close: leaveItem, previous: () => turn(-1), next: () => turn(1), info: () => turnDetails() };
    for (const [id, act] of Object.entries(actions)) byId(id).addEventListener("click", act);
    turnDetails(innerWidth > 900);
    // What Escape closes, or the browser by itself, leaves the address as well.
    viewer.addEventListener("close", () => { if (state.item) leaveItem(); });
    let touch = null;
    stage.addEventListener("touchstart", (event) => {
      touch = event.touches.length === 1 ? event.touches[0] : null;
    }, { passive: true });
    stage.addEventListener("touchend", (event) => {
      const end = event.changedTouches[0];
      const far = touch ? end.clientX - touch.clientX : 0;
      const aside = Math.abs(far) > 50 && Math.abs(far) > 2 * Math.abs(end.clientY - touch.clientY);
      if (aside && !(visualViewport?.scale > 1.05)) turn(far < 0 ? 1 : -1);
    }, { passive: true });

    addEventListener("keydown", (event) => {
      const { key, target } = event;
      if (event.altKey || event.ctrlKey || event.metaKey) return;
      if (key === "/" && target !== search) {
        event.preventDefault();
        viewer.close();
        search.focus();
        search.select();
      } else if (viewer.open) {
        if (target.tagName === "VIDEO") return;
        if (key === "ArrowLeft") turn(-1);
        else if (key === "ArrowRight") turn(1);
        else if (key === "i") turnDetails();
      } else if (key === "Escape") {
        event.preventDefault();
        search.value = "";
        if (state.q || state.set || state.view) location.hash = link(state.q ? { ...state, q: "" } : {});
      } else if (target === search) {
        if (key !== "ArrowDown" && key !== "Enter") return;
        event.preventDefault();
        grid.querySelector(".tile")?.focus();
      } else if (key.startsWith("Arrow") && target.classList.contains("tile")) {
        event.preventDefault();
        moveFocus(target, key);
      }
    });
    route();
  };

  return {
    sets: (files, lines) => {
      searchFiles = files.map((name) => ({ name }));
      lines.forEach(readSet);
      start();
    },
    chunk: (name, lines) => {
      const chunk = chunks.get(name);
      chunk.items = lines.map((line) => new Item(chunk.set, line));
    },
    texts: (entries) => {
      for (const [name, ids, text] of entries) {
        const known = { photos: ids.split(" "), text, ends: [] };
        searched.set(name, known);
        for (let end = -1; (end = text.indexOf("\n", end + 1)) >= 0;) known.ends.push(end);
        known.ends.push(text.length);
        for (const photo of known.photos) (photos.has(photo) ? shared : photos).add(photo);
      }
    },
  };
})();
