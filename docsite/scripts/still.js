// Without transitions a page has its shape at once.
document.head.append(Object.assign(document.createElement('style'), {textContent: '* { transition: none !important }'}));
