3
1 0.2 0.3 !Fz
5 0.1 0.1
40 0.3 0.3 !Cz_long_label
