import { describe, expect, it } from 'vitest';
import { linkTarget, renderMarkdown } from '../../src/ui/markdown';

describe('Markdown preview', () => {
  it.each([
    { name: 'structure', md: '# T\n\n- a\n- **b**\n\n`x`', out: '<h1>T</h1><ul><li><span>a</span></li><li><span><strong>b</strong></span></li></ul><p><code>x</code></p>' },
    { name: 'raw HTML stays text', md: '<script>alert(1)</script>\n\n<img src=x onerror=alert(1)>', out: '<p>&lt;script&gt;alert(1)&lt;/script&gt;</p><p>&lt;img src=x onerror=alert(1)&gt;</p>' },
    { name: 'a web link keeps its href', md: '[site](https://example.com/a?b=1)', out: '<p><a href="https://example.com/a?b=1">site</a></p>' },
    { name: 'a script link is text', md: '[x](javascript:alert(1)) [y](JaVaScRiPt:alert(1)) [z](data:text/html,hi)', out: '<p>[x](javascript:alert(1)) [y](JaVaScRiPt:alert(1)) [z](data:text/html,hi)</p>' },
    { name: 'an autolink to a script is text', md: '<javascript:alert(1)>', out: '<p>&lt;javascript:alert(1)&gt;</p>' },
    { name: 'a project file opens in a tab', md: '[b](../src/b%20c.ts#L3)', out: '<p><a class="md-file-link" title="src/b c.ts" tabindex="0">b</a></p>' },
    { name: 'an image off the web loads without a referrer', md: '![logo](https://img.example/l.png)', out: '<p><img src="https://img.example/l.png" alt="logo" referrerpolicy="no-referrer" loading="lazy"></p>' },
    { name: 'a local image shows its description', md: '![diagram](./d.png)', out: '<p><span class="md-image-alt">[diagram]</span></p>' },
    { name: 'code keeps its text', md: '```html\n<b onclick="x()">\n```', out: '<pre><code>&lt;b onclick="x()"&gt;\n</code></pre>' },
  ])('$name', ({ md, out }) => {
    const box = document.createElement('div');
    box.append(renderMarkdown(md, { path: 'docs/guide.md', openPath: () => undefined }));
    expect(box.innerHTML).toBe(out);
  });

  it.each([
    { href: 'https://a.example', out: { kind: 'web', href: 'https://a.example' } },
    { href: 'mailto:a@b.example', out: { kind: 'web', href: 'mailto:a@b.example' } },
    { href: 'vbscript:x', out: { kind: 'none' } },
    { href: 'file:///etc/passwd', out: { kind: 'none' } },
    { href: '//evil.example/x', out: { kind: 'none' } },
    { href: '#heading', out: { kind: 'none' } },
    { href: './b.md', out: { kind: 'file', path: 'docs/b.md' } },
    { href: '/README.md', out: { kind: 'file', path: 'README.md' } },
    { href: '../../outside.md', out: { kind: 'none' } },
  ])('link $href', ({ href, out }) => {
    expect(linkTarget(href, 'docs/guide.md')).toEqual(out);
  });
});
