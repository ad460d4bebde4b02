#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compiles the examples of the headers and the README, as C99 and as C++, runs them and checks their output; and runs
the README's Python. Every `./kes` command that a document names must exist.
Usage: examples_test.py SOURCE_DIR LIBRARY_DIR CC CXX"""
import os, pathlib, re, subprocess, sys, tempfile

source, library, cc, cxx = pathlib.Path(sys.argv[1]), *sys.argv[2:5]
headers = ''
for header in sorted((source / 'include/kesaudio').glob('*.h')):
    for code in re.findall(r'@code\n(.*?) \* @endcode', header.read_text(), re.S):
        headers += re.sub(r'^ \* ?', '', code, flags=re.M)
assert headers.count('InitKesAudio') == 3, 'one example for each component'
readme = (source / 'README.md').read_text()
whole, *pieces = re.findall(r'```c\n(.*?)```', readme, re.S)
assert len(pieces) == 2

# Three frames of 5.1, and 100 ms of silence for the others.
main = '#include <kesaudio/kesaudio.h>\n#include <stdio.h>\n' + headers + '''
static unsigned char in[40000], out[40000];
static int piece0(const void* src, uint32_t inBytes, void* dst, uint32_t outBytes) {%s return outBytes == 19200 ? 0 : 2; }
static int piece1(const void* src, uint32_t inBytes, void* dst, uint32_t outBytes) {%s return outBytes == 400 ? 0 : 2; }
int main(void) {
  SrcParam p = {44100, 2, 48000, 2, KES_RESAMPLER_S16};
  uint32_t resampled = resample(in, 17640, out, sizeof out);
  printf("%%u %%d %%d %%d ", toStereo(in, 12007, out), resampled > 18800 && resampled <= 19204,
         limit(in, 38400, out, sizeof out) > 18000, piece0(in, 17640, out, sizeof out));
  printf("%%d %%u %%d\\n", piece1(in, 600, out, sizeof out), kes_resampler_max_output(&p, 17640),
         kes_version() == KESAUDIO_VERSION);
  return 0;
}
''' % tuple(pieces)
expected = {'headers': (main, '4000 1 1 0 0 19204 1\n'),
            'readme': (whole, '8 bytes made, 0 left for the next call: 166 0\nfront left: 1000 0, centre: 1414 1414\n')}
with tempfile.TemporaryDirectory() as folder:
    for name, (text, output) in expected.items():
        for suffix, compiler in ('c', [cc, '-std=c99']), ('cpp', [cxx, '-std=c++11']):
            file, program = pathlib.Path(folder, f'{name}.{suffix}'), pathlib.Path(folder, name + suffix)
            file.write_text(text)
            subprocess.run([*compiler, '-Wall', '-Wextra', '-pedantic', '-Werror', f'-I{source}/include', file, '-o',
                            program, f'-L{library}', '-lkesaudio', f'-Wl,-rpath,{library}',
                            f'-Wl,-rpath-link,{library}/host'], check=True)
            made = subprocess.run([program], check=True, capture_output=True, text=True).stdout
            if made != output:
                sys.exit(f'{name}.{suffix} prints {made!r}, expected {output!r}')

for document in source / 'README.md', source / 'CONTRIBUTING.md', *source.glob('docs/*.md'):
    for command in re.findall(r'\./kes ([a-z]+)', document.read_text()):
        assert f'\ncmd_{command}() {{' in (source / 'kes').read_text(), f'{document} names ./kes {command}'
(python, printed), = re.findall(r'```python\n(.*?)```\n\nprints `(.*?)`', readme, re.S)
os.environ.update(KESAUDIO_LIBRARY=f'{library}/libkesaudio.so', PYTHONPATH=f'{source}/python')
made = subprocess.run([sys.executable, '-B', '-c', python], check=True, capture_output=True, text=True).stdout
if made != printed + '\n':
    sys.exit(f'the Python prints {made!r}, expected {printed!r}')
