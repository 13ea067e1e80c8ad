// Elements built from data with text nodes only: nothing from a router, a
// file or the service is ever parsed as markup.
function append(parent, children) {
  for (const c of children.flat(Infinity)) {
    if (c === null || c === undefined || c === false) continue;
    parent.append(c instanceof Node ? c : String(c));
  }
}

export function el(tag, props = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(props)) {
    if (v === undefined || v === null || v === false) continue;
    if (k === 'class') e.className = v;
    else if (k.startsWith('on')) e.addEventListener(k.slice(2), v);
    else e.setAttribute(k, v === true ? '' : v);
  }
  append(e, children);
  return e;
}

export function fill(parent, ...children) {
  parent.replaceChildren();
  append(parent, children);
  return parent;
}

// A view's heading, focused so that keyboard and screen reader users start
// at the new content.
export function heading(text, ...rest) {
  document.title = `${text} · kelputil`;
  return el('h1', { tabindex: '-1' }, text, ...rest);
}

export const status = (text) => el('p', { role: 'status', 'aria-live': 'polite' }, text);

export function errorBox(err) {
  return el('p', { class: 'error', role: 'alert' }, err.message);
}
