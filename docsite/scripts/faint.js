// Text with less contrast than `least` to what is behind it.
((least) => {
  const canvas = new OffscreenCanvas(1, 1).getContext('2d', {willReadFrequently: true});
  const rgba = (colour) => {
    canvas.clearRect(0, 0, 1, 1);
    canvas.fillStyle = colour;
    canvas.fillRect(0, 0, 1, 1);
    return [...canvas.getImageData(0, 0, 1, 1).data];
  };
  const linear = (part) => (part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4);
  const light = (colour) => {
    const [r, g, b] = colour.map((part) => linear(part / 255));
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
  };
  const behind = (element) => {
    for (let e = element; e; e = e.parentElement) {
      const colour = rgba(getComputedStyle(e).backgroundColor);
      if (colour[3] > 200) return colour;
    }
    return [255, 255, 255, 255];
  };
  const found = new Set();
  for (const e of document.querySelectorAll('article :is(p, td, th, li, a:not(.headerlink), code, pre span, figure svg text), nav a')) {
    const style = getComputedStyle(e);
    const own = light(rgba(e.tagName === 'text' ? style.fill : style.color));
    const other = light(behind(e));
    const ratio = (Math.max(own, other) + 0.05) / (Math.min(own, other) + 0.05);
    if (ratio < least) found.add(`faint (${ratio.toFixed(1)}): "${e.textContent.trim().slice(0, 40)}"`);
  }
  return [...found];
})
