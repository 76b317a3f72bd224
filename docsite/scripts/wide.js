// What is wider than the page, and tables that scroll. A box that scrolls may hold wide things; code does on a phone.
(() => {
  const found = [];
  const page = document.documentElement;
  const name = (e) => `${e.tagName.toLowerCase()} "${e.textContent.trim().replace(/\s+/g, ' ').slice(0, 40)}"`;
  if (page.scrollWidth > page.clientWidth) found.push(`the page is ${page.scrollWidth} wide`);
  for (const e of document.querySelectorAll('.md-typeset__scrollwrap'))
    if (e.scrollWidth > e.clientWidth + 1) found.push(`scrolls sideways: ${name(e)}`);
  for (const e of document.querySelectorAll('article :is(pre, pre > code)'))
    if (page.clientWidth > 1000 && e.scrollWidth > e.clientWidth) found.push(`cut code: ${name(e)}`);
  for (const e of document.querySelectorAll('article *')) {
    if (e.closest('pre, .md-typeset__scrollwrap, svg, .headerlink')) continue;
    if (e.getBoundingClientRect().right > page.clientWidth) found.push(`sticks out: ${name(e)}`);
  }
  for (const e of document.querySelectorAll('figure svg')) {
    const box = e.getBoundingClientRect();
    for (const text of e.querySelectorAll('text')) {
      const place = text.getBoundingClientRect();
      if (place.right > box.right + 1 || place.left < box.left - 1) found.push(`cut off: ${name(text)}`);
    }
  }
  return found;
})()
