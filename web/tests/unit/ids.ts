export const P1 = '11111111-1111-4111-8111-111111111111';
export const P2 = '22222222-2222-4222-8222-222222222222';
export const P3 = '33333333-3333-4333-8333-333333333333';
export const S1 = 'AAAAAAAA-AAAA-4AAA-8AAA-AAAAAAAAAAAA';
export const S2 = 'BBBBBBBB-BBBB-4BBB-8BBB-BBBBBBBBBBBB';

export const project = (id: string, name: string) => ({ id, name, rootPath: `~/${name}`, explorerExcludedPaths: [] });
